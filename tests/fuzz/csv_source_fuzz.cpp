#include <algorithm>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_targets.h"
#include "orva_database/write_data_fb.h"
#include "orva_host/csv_reader.h"
#include "orva_host/plant_row.h"
#include "orva_host/replay_pace.h"
#include "orva_host/source.h"
#include "orva_host/trace_log.h"
#include "support/history_service.h"
#include "support/temp_folder.h"

// The first byte says whether the others are a file (even) or what follows the line of the columns
// in a recording (odd). The file is read record by record; a recording is also replayed into an
// archive of the variables 1 and 2.

namespace orva::fuzz {
namespace {

using host::CsvReader;
using Record = std::vector<CsvReader::Field>;
using Key = std::pair<std::int64_t, std::string>;  // id and path

struct Recording {
  std::vector<Record> records;
  int bad = 0;
};

Recording readAll(const std::string& file, std::size_t size) {
  CsvReader reader;
  demand(reader.open(file) == 0, "a file that is there can be opened");
  Recording all;
  Record record;
  long long line = 0;
  for (;;) {
    const CsvReader::Result result = reader.next(record);
    if (result == CsvReader::Result::end) break;
    demand(reader.line() > line, "each record begins on a later line");
    line = reader.line();
    if (result == CsvReader::Result::bad) {
      demand(reader.error() != nullptr, "a bad record has a reason");
      ++all.bad;
      continue;
    }
    std::size_t bytes = 0;
    for (const CsvReader::Field& field : record) bytes += field.text.size();
    demand(!record.empty() && bytes <= size, "fields come from the file");
    all.records.push_back(record);
  }
  demand(reader.next(record) == CsvReader::Result::end, "the end is the end");
  return all;
}

std::string quoted(const std::string& text) {
  std::string field = "\"";
  for (const char c : text) field += c == '"' ? "\"\"" : std::string(1, c);
  return field + '"';
}

std::string textOf(const std::vector<Record>& records) {
  std::string text;
  for (const Record& record : records) {
    for (std::size_t i = 0; i < record.size(); ++i) {
      text += (i == 0 ? "" : ",") + quoted(record[i].text);
    }
    text += "\r\n";
  }
  return text;
}

bool sameTexts(const Record& a, const Record& b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(),
                    [](const auto& x, const auto& y) { return x.text == y.text; });
}

void demandComesBack(const test::TempFolder& folder, const std::vector<Record>& records) {
  const std::string text = textOf(records);
  const Recording again = readAll(folder.write("again.csv", text), text.size());
  demand(again.bad == 0 && std::equal(records.begin(), records.end(), again.records.begin(),
                                      again.records.end(), sameTexts),
         "what is written with quotes is read back");
}

// ---- replaying

// Stops a replay when it says that it is done, and keeps what it says.
class EndOfReplay final : public host::TraceHook {
 public:
  explicit EndOfReplay(host::Gate& stop) : stop_(stop) { host::setTraceHook(this); }
  ~EndOfReplay() override { host::setTraceHook(nullptr); }
  EndOfReplay(const EndOfReplay&) = delete;
  EndOfReplay& operator=(const EndOfReplay&) = delete;

  void onLine(const host::TraceLine& line) override {
    const std::size_t at = line.text.find(": done, ");
    if (line.text.rfind("source csv: ", 0) != 0 || at == std::string::npos) return;
    said = line.text.substr(at + 2);
    stop_.open();
  }

  std::string said;

 private:
  host::Gate& stop_;
};

bool isWritten(const PinPtr& before, const host::PlantRow& row) {
  const OpcUa_Variant& value = row.value.Get();
  constexpr double kMost = std::numeric_limits<double>::max();
  if (value.Datatype == OpcUaType_Double && value.Value.Double > kMost) return false;
  return !before || row.ticks >= before->time;
}

// What the archive must have got of the rows, by item.
struct Expected {
  std::map<Key, std::vector<PinPtr>> samples;
  int replayed = 0;
  int bad = 0;
};

Expected expectedOf(const Recording& recording, std::int64_t now) {
  Expected expected;
  expected.bad = recording.bad;
  for (std::size_t i = 1; i < recording.records.size(); ++i) {
    host::PlantRow row;
    const bool isRow = host::parsePlantRow(recording.records[i], row) == nullptr;
    if (!isRow || (row.id != 1 && row.id != 2)) {
      ++expected.bad;
      continue;
    }
    ++expected.replayed;
    if (row.ticks == 0) row.ticks = now;
    std::vector<PinPtr>& samples = expected.samples[{row.id, row.path}];
    if (!isWritten(samples.empty() ? PinPtr() : samples.back(), row)) continue;
    samples.push_back(makePin(row.ticks, row.value, row.quality));
  }
  return expected;
}

void demandReplayed(test::HistoryService& service, const Expected& expected,
                    const std::string& said) {
  const std::string counts = "done, " + std::to_string(expected.replayed) + " rows replayed, " +
                             std::to_string(expected.bad) + " bad, ";
  demand(said.rfind(counts, 0) == 0, "each row is replayed or counted as bad");
  for (const auto& [key, samples] : expected.samples) {
    const std::vector<PinPtr> written = service.archive().written(key, 0);
    demand(written.size() == samples.size(), "each row in order is a sample of its item");
    for (std::size_t i = 0; i < samples.size(); ++i) {
      const Pin& got = *written[i];
      const Pin& wanted = *samples[i];
      demand(got.time == wanted.time &&
                 OpcUa_StatusCode{got.quality} == OpcUa_StatusCode{wanted.quality} &&
                 got.value.GetType() == wanted.value.GetType() &&
                 got.value.ToText() == wanted.value.ToText(),
             "a sample is what its row says");
    }
  }
}

void replay(const std::string& file, const Recording& recording) {
  test::HistoryService service;
  service.addVariable(1, "P/A");
  service.addVariable(2, "P/B");
  RegisterExternalSTLib("ArchiveProc", archive::luaopen_WriteDataFB);
  host::SourceCfg cfg;
  cfg.type = "csv";
  cfg.file = file;
  cfg.speed = 0;
  host::Gate stop{LockClass::kTraceHook};  // opened by a trace hook
  EndOfReplay end(stop);
  std::string error;
  const auto source = host::makeCsvSource(cfg, error);
  demand(source != nullptr, "a file that begins with the columns is a recording");
  source->run(stop);
  demandReplayed(service, expectedOf(recording, service.clock.now()), end.said);
}

// No row arrives before the one in front of it, none that is in order before or after its time.
void demandPace(const Recording& recording) {
  host::ReplayPace pace;
  std::vector<std::int64_t> times;
  for (const Record& record : recording.records) {
    host::PlantRow row;
    if (host::parsePlantRow(record, row) == nullptr) times.push_back(row.ticks);
  }
  std::size_t ahead = 0;
  std::int64_t before = INT64_MIN;
  for (std::size_t i = 0; i < times.size(); ++i) {
    while (ahead < times.size() && ahead < i + host::ReplayPace::kWindow) pace.add(times[ahead++]);
    const std::int64_t arrival = pace.next();
    demand(arrival >= before && arrival <= std::max(before, times[i]),
           "a row arrives when it bears its time, or with the one in front");
    before = arrival;
  }
}

}  // namespace

void csvSource(const std::uint8_t* data, std::size_t size) {
  static const test::TempFolder folder;
  FuzzInput in(data, size);
  const bool rowsOnly = in.flag();
  const std::string text = (rowsOnly ? std::string(host::kPlantHeader) + "\n" : "") + in.rest();
  const std::string file = folder.write("day.csv", text);
  const Recording recording = readAll(file, text.size());
  demandComesBack(folder, recording.records);
  demandPace(recording);
  if (!recording.records.empty() && host::isPlantHeader(recording.records.front()) && rowsOnly) {
    replay(file, recording);
  }
}

}  // namespace orva::fuzz
