#include "orva_cli/store_text.h"

#include <algorithm>

#include "orva_cli/row_writer.h"
#include "orva_store/amount_text.h"
#include "share/json.h"
#include "share/ticks.h"

namespace orva::cli {

using store::bytesText;
using store::fixedText;

namespace {

std::int64_t unixMs(std::int64_t ticks) {
  return ticks / kTicksPerMillisecond - kUnixEpochMilliseconds;
}

std::string ticksText(std::int64_t ticks, Zone zone) { return timeText(unixMs(ticks), zone); }

double bytesPerSample(const store::StreamFigures& stream) {
  return stream.samples == 0
             ? 0
             : static_cast<double>(stream.bytes) / static_cast<double>(stream.samples);
}

bool hasSamples(const store::StreamFigures& stream) { return stream.segments > 0; }

// Rows of equal width: texts to the left, numbers to the right.
class TextTable {
 public:
  using Cells = std::vector<std::string>;

  explicit TextTable(Cells heads, std::vector<bool> isNumber) : isNumber_(std::move(isNumber)) {
    add(std::move(heads));
  }
  void add(Cells cells) { rows_.push_back(std::move(cells)); }

  std::string text() const {
    std::vector<std::size_t> widths(isNumber_.size(), 0);
    for (const Cells& row : rows_) {
      for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    std::string all;
    for (const Cells& row : rows_) {
      std::string line;
      for (std::size_t i = 0; i < row.size(); ++i) {
        const std::string blanks(widths[i] - row[i].size(), ' ');
        line += (i == 0 ? "" : "  ") + (isNumber_[i] ? blanks + row[i] : row[i] + blanks);
      }
      line.erase(line.find_last_not_of(' ') + 1);
      all += line + '\n';
    }
    return all;
  }

 private:
  const std::vector<bool> isNumber_;
  std::vector<Cells> rows_;
};

std::string damagedTable(const std::vector<store::Damage>& damaged, Zone zone) {
  TextTable table({"item", "path", "layer", "from", "to", "samples", "what"},
                  {true, false, true, false, false, true, false});
  for (const store::Damage& each : damaged) {
    table.add({std::to_string(each.id), each.path, std::to_string(each.layer),
               ticksText(each.first, zone), ticksText(each.last, zone), std::to_string(each.count),
               each.what});
  }
  return table.text();
}

}  // namespace

std::string checkText(const store::CheckResult& result, const std::string& file, Zone zone) {
  std::string text = "store     " + file + "\n";
  text += "looked at " + std::to_string(result.items) + " items, " +
          std::to_string(result.streams) + " layers of them, " + std::to_string(result.segments) +
          " segments, " + std::to_string(result.samples) + " samples\n";
  for (const std::string& problem : result.problems) text += "file      " + problem + "\n";
  if (result.isFine()) return text + "damaged   nothing\n";
  if (result.damaged.empty())
    return text + "damaged   the file; every segment that was found can be read\n";
  text += "damaged   " + std::to_string(result.damaged.size()) + " stretches:\n";
  return text + damagedTable(result.damaged, zone);
}

std::string damageText(const store::DamageMet& damage) {
  if (!damage.any()) return "";
  std::string text = "damaged   " + std::to_string(damage.stretches) + " stretches";
  if (damage.setApart == damage.stretches) return text + " set apart\n";
  if (damage.setApart > 0) text += ", " + std::to_string(damage.setApart) + " of them set apart";
  return text + "; `orva store check` lists them\n";
}

std::string countsText(const store::ImportCounts& counts) {
  std::string text = "rows      " + std::to_string(counts.rows) + "\n";
  text += "stored    " + std::to_string(counts.stored) + "\n";
  text += "same      " + std::to_string(counts.same) + "\n";
  if (counts.filtered > 0) text += "filtered  " + std::to_string(counts.filtered) + "\n";
  text += "refused   " + std::to_string(counts.refused) + "\n";
  for (const auto& [layer, samples] : counts.layers) {
    text += "layer " + std::to_string(layer) + "   " + std::to_string(samples) + " samples\n";
  }
  return text + damageText(counts.damage);
}

std::string figuresText(const store::StoreFigures& figures, const std::string& file, Zone zone) {
  const char* const zoneName = zone == Zone::kUtc ? " (UTC)" : " (local)";
  TextTable table({"id", "path", "layer", "segments", "samples", "bytes", "bytes/sample",
                   std::string("first") + zoneName, std::string("last") + zoneName, "damaged"},
                  {true, false, true, true, true, true, true, false, false, true});
  std::int64_t samples = 0;
  std::int64_t segmentBytes = 0;
  for (const store::StreamFigures& stream : figures.streams) {
    samples += stream.samples;
    segmentBytes += stream.bytes;
    const bool any = hasSamples(stream);
    table.add({std::to_string(stream.id), stream.path, std::to_string(stream.layer),
               std::to_string(stream.segments), std::to_string(stream.samples),
               std::to_string(stream.bytes), any ? fixedText(bytesPerSample(stream), 2) : "-",
               any ? ticksText(stream.first, zone) : "-", any ? ticksText(stream.last, zone) : "-",
               std::to_string(stream.damaged)});
  }
  std::string text = figures.streams.empty() ? "" : table.text() + "\n";
  text += "items     " + std::to_string(figures.items) + "\n";
  text += "samples   " + std::to_string(samples) + " in " + bytesText(segmentBytes) + "\n";
  text += "file      " + file + ", " + bytesText(figures.fileBytes) + ", " +
          bytesText(figures.freeBytes) + " of it free, log " + bytesText(figures.logBytes) + "\n";
  return text;
}

std::string figuresCsv(const store::StoreFigures& figures, Zone zone) {
  std::string text = "id,path,layer,segments,samples,bytes,first,last,damaged\n";
  for (const store::StreamFigures& stream : figures.streams) {
    const bool any = hasSamples(stream);
    text += std::to_string(stream.id) + ',' + csvField(stream.path) + ',' +
            std::to_string(stream.layer) + ',' + std::to_string(stream.segments) + ',' +
            std::to_string(stream.samples) + ',' + std::to_string(stream.bytes) + ',' +
            (any ? ticksText(stream.first, zone) : "") + ',' +
            (any ? ticksText(stream.last, zone) : "") + ',' + std::to_string(stream.damaged) + '\n';
  }
  return text;
}

std::string figuresJson(const store::StoreFigures& figures, const std::string& file) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  const auto number = [&writer](const char* key, std::int64_t value) {
    writer.Key(key);
    writer.Int64(value);
  };
  writer.StartObject();
  writer.Key("file");
  writer.String(file);
  number("bytes", figures.fileBytes);
  number("freeBytes", figures.freeBytes);
  number("logBytes", figures.logBytes);
  number("items", figures.items);
  writer.Key("layers");
  writer.StartArray();
  for (const store::StreamFigures& stream : figures.streams) {
    writer.StartObject();
    number("id", stream.id);
    writer.Key("path");
    writer.String(stream.path);
    number("layer", stream.layer);
    number("segments", stream.segments);
    number("samples", stream.samples);
    number("bytes", stream.bytes);
    if (hasSamples(stream)) {
      number("first", unixMs(stream.first));
      number("last", unixMs(stream.last));
    }
    number("damaged", stream.damaged);
    writer.EndObject();
  }
  writer.EndArray();
  writer.EndObject();
  return std::string(text.GetString(), text.GetSize()) + '\n';
}

}  // namespace orva::cli
