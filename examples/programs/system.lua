-- Archives what the source "system" tells about this machine.
--
-- The file runs once when the host starts. It makes one function block "ArchiveProc" per variable;
-- from then on the host calls cycle() once per cycleMs of the configuration. A block hands one
-- sample to the archive per call; the item's write filter decides whether the sample is kept.

-- How often an unchanged value is archived all the same. Periods are counted in ticks of 100 ns.
local SECOND = 10000000
local MINUTE = 60 * SECOND

-- IsExternal: the block reads the live value of the variable Id itself, a boolean or a number.
-- Without filter inputs the filter of the archive holds (plant.json: every change, and at the
-- latest after a minute). Give Path as well as Id: history is then found under that path.
local plain = {
  ArchiveProc.new{Id = 2, Path = "System/Cpu/LoadAverage", IsExternal = true},
  ArchiveProc.new{Id = 3, Path = "System/Memory/Used", IsExternal = true},
  ArchiveProc.new{Id = 7, Path = "System/Network/Received", IsExternal = true},
  ArchiveProc.new{Id = 8, Path = "System/Network/Sent", IsExternal = true},
  ArchiveProc.new{Id = 9, Path = "System/Network/Up", IsExternal = true},
  ArchiveProc.new{Id = 10, Path = "System/Processes", IsExternal = true},
}

-- UseArchiveParams = true means: the block's own inputs replace the archive's filter.
local filtered = {
  -- A dead band: only changes of at least 2 percent, but at least one sample in 10 seconds.
  ArchiveProc.new{Id = 1, Path = "System/Cpu/Load", IsExternal = true,
                  UseArchiveParams = true, WriteByChange = true, Deadband = 2,
                  MaxWritePeriod = 10 * SECOND},
  -- A minimum period: changes, but not more than one sample in 5 seconds.
  ArchiveProc.new{Id = 4, Path = "System/Memory/UsedPercent", IsExternal = true,
                  UseArchiveParams = true, WriteByChange = true, MinWritePeriod = 5 * SECOND,
                  MaxWritePeriod = MINUTE},
  ArchiveProc.new{Id = 5, Path = "System/Disk/Free", IsExternal = true,
                  UseArchiveParams = true, WriteByChange = true, Deadband = 1024 * 1024,
                  MaxWritePeriod = 10 * MINUTE},
  ArchiveProc.new{Id = 6, Path = "System/Disk/UsedPercent", IsExternal = true,
                  UseArchiveParams = true, WriteByChange = true, Deadband = 0.1,
                  MaxWritePeriod = 10 * MINUTE},
  -- Without WriteByChange a sample is kept when MaxWritePeriod has passed, changed or not.
  ArchiveProc.new{Id = 11, Path = "System/Uptime", IsExternal = true,
                  UseArchiveParams = true, MaxWritePeriod = 10 * SECOND},
  -- Not every machine has a thermometer: while the variable has no live value nothing is written.
  ArchiveProc.new{Id = 13, Path = "System/Temperature", IsExternal = true,
                  UseArchiveParams = true, WriteByChange = true, Deadband = 0.5,
                  MaxWritePeriod = MINUTE},
}

-- A text cannot be read by IsExternal; the program sets the input Value instead. Values that are
-- texts or booleans are kept at every change, whatever the dead band says.
local kernel = ArchiveProc.new{Id = 12, Path = "System/Kernel"}

function cycle()
  for _, block in ipairs(plain) do block() end
  for _, block in ipairs(filtered) do block() end

  kernel.Value = Read("System/Kernel")  -- by path; Read(12) is the same
  if kernel.Value ~= nil then kernel() end
end
