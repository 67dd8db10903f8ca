-- The pump of a station: a pressure ten times a second, and whether the pump runs.

local pressure = ArchiveProc.new{Id = 1, Path = "Pump/Pressure"}
local running = ArchiveProc.new{Id = 2, Path = "Pump/Running"}

local bar, on = 4, true

function cycle()
  bar = bar + (on and 0.05 or -0.03) + 0.02 * math.random()
  if bar > 6 then on = false elseif bar < 3 then on = true end
  pressure.Value = bar
  pressure()
  running.Value = on
  running()
end
