"""What the three hosts of the fleet are told: two sources that write, and one that pulls."""

from network import Network

SOURCES = (1, 2)
PULLER = 3
ITEMS = 100  # of each source
BASE_PORT = 9000
TICKS_PER_SECOND = 10_000_000

# Each cycle writes a sample of each item, with the cycle's number as its value.
WRITER = """
local blocks = {}
for i = 1, %d do
  blocks[i] = ArchiveProc.new{Id = i, Path = string.format("Line/Item%%03d", i)}
end
local n = 0
function cycle()
  n = n + 1
  local status = n %% 5 == 0 and 0x40000000 or 0
  for i, block in ipairs(blocks) do
    local value = i %% 2 == 1 and n or "step " .. n
    block.Value = DataValue{Value = value, Status = status}
    block()
  end
end
""" % ITEMS

# When the puller's clock was set forward it marks that in an item that it also pulls. From there
# on its write filter refuses what is older than the mark.
MARK = -1
MARKER = """
local block = ArchiveProc.new{Id = 1001, Path = "From1/Item001"}
local last = Now()
function cycle()
  local now = Now()
  if now - last > 1800000 then
    block.Value = %d
    block()
  end
  last = now
end
""" % MARK


def source_path(item):
    return f"Line/Item{item:03d}"


def pulled_path(source, item):
    return f"From{source}/Item{item:03d}"


def pulled_id(source, item):
    return 1000 * source + item


def _type(item):
    return "Double" if item % 2 == 1 else "String"


def _variable(number, path, item):
    return {"id": number, "path": path, "type": _type(item), "layers": {"0": {"archive": 0}}}


def quiet(variables, store="store"):
    """A host that only keeps and shows a history."""
    return {
        "addins": ["liborva_database.so", "liborva_sqlite.so"],
        "layers": [{"number": 0, "cache": True}],
        "variables": variables,
        "http": {"bind": "127.0.0.1", "port": 0, "limits": {"idleTimeMs": 600_000}},
        "DataArchive": {"archives": [{
            "connection": {"providerType": "sqlite", "location": store},
            "limits": {"writeBufferSize": 100_000},
            "filter": {"allValues": True}}]},
    }


def _network(number):
    others = [each for each in (*SOURCES, PULLER) if each != number]
    return {"index": number, "bind": Network.address(number), "basePort": BASE_PORT,
            "controllers": [{"index": each, "address": Network.address(each), "port": BASE_PORT}
                            for each in others]}


def source_variables():
    return [_variable(item, source_path(item), item) for item in range(1, ITEMS + 1)]


def source(number, cycle_ms):
    """A source; one that does not write where `cycle_ms` is None."""
    config = quiet(source_variables())
    config["network"] = _network(number)
    if cycle_ms is not None:
        config["programs"] = [{"name": "writer", "file": "writer.lua", "cycleMs": cycle_ms}]
    return config


def puller(marks_clock_changes=False):
    pulled = [(each, item) for each in SOURCES for item in range(1, ITEMS + 1)]
    config = quiet([_variable(pulled_id(*each), pulled_path(*each), each[1]) for each in pulled])
    config["network"] = _network(PULLER)
    config["RemoteData"] = {
        "requestPeriod": TICKS_PER_SECOND,
        "items": [{"controllerIndex": each, "remotePath": source_path(item), "remoteId": item,
                   "localPath": pulled_path(each, item), "localId": pulled_id(each, item)}
                  for each, item in pulled]}
    if marks_clock_changes:
        config["programs"] = [{"name": "marker", "file": "marker.lua", "cycleMs": 50}]
    return config
