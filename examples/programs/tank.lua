-- A tank that a pump fills and a consumer empties, measured by a device that samples every 100 ms
-- on its own and delivers what it has once per cycle. So the samples have times of their own:
-- DataValue{Value = v, SourceTime = milliseconds since 1970, Status = code} carries them.

local SAMPLE_MS = 100
local GOOD, UNCERTAIN = 0x00000000, 0x40000000

-- Every sample that differs is kept; the block's filter counts by the samples' own times.
local level = ArchiveProc.new{Id = 17, Path = "Plant/Tank/Level",
                              UseArchiveParams = true, WriteByChange = true, Deadband = 0.01,
                              MaxWritePeriod = 10000000}
local pump = ArchiveProc.new{Id = 18, Path = "Plant/Tank/Pump"}

local height, filling = 50, true
local sampled = Now()

-- One step of the plant. The pump starts at 20 percent and stops at 80.
local function step(time)
  local consumption = 0.3 + 0.1 * math.sin(time / 10000)
  height = height + (filling and 0.7 or 0) - consumption
  if height < 20 then filling = true elseif height > 80 then filling = false end
end

function cycle()
  local now = Now()
  if now - sampled > 60000 or now < sampled then sampled = now end  -- somebody set the clock
  while sampled + SAMPLE_MS <= now do
    sampled = sampled + SAMPLE_MS
    step(sampled)
    -- Near the edges of its range the device is not sure of itself.
    local status = (height < 22 or height > 78) and UNCERTAIN or GOOD
    level.Value = DataValue{Value = height, SourceTime = sampled, Status = status}
    level()
  end
  Write("Plant/Tank/Level", height)

  -- A boolean without a time of its own gets the time at which it is written.
  pump.Value = filling
  pump()
  Write("Plant/Tank/Pump", filling)
end

-- When the host stops, each block writes its last value once more with the current time and the
-- status 0x00A80000 (Good, Shutdown Event), if its filter lets that through.
