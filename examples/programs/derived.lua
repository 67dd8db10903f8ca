-- Values computed from others: a rate, a text and a boolean. They are archived and also become
-- live values, so that other programs can read them.

local rate = ArchiveProc.new{Id = 14, Path = "System/Network/ReceiveRate",
                             UseArchiveParams = true, WriteByChange = true, Deadband = 10,
                             MaxWritePeriod = 600000000}
local mode = ArchiveProc.new{Id = 15, Path = "System/Mode"}
local busy = ArchiveProc.new{Id = 16, Path = "System/Busy"}

-- What a program keeps between its cycles are plain variables of the file.
local lastBytes, lastTime

local function archive(block, value)
  block.Value = value
  block()
  Write(block.Id, value)
end

local function modeOf(load)
  if load < 10 then return "idle" end
  if load < 60 then return "normal" end
  return "busy"
end

function cycle()
  -- A counter of bytes becomes bytes per second. It starts again at 0 when the machine does.
  local bytes, time = Read("System/Network/Received"), Now()
  if bytes ~= nil and lastBytes ~= nil and bytes >= lastBytes and time > lastTime then
    archive(rate, (bytes - lastBytes) * 1000 / (time - lastTime))
  end
  lastBytes, lastTime = bytes, time

  -- The load is there from the second reading of the source on; until then it is nil.
  local load = Read("System/Cpu/Load")
  if load == nil then return end
  archive(mode, modeOf(load))
  archive(busy, load >= 60)
end
