#include "orva_cli/row_writer.h"

#include <algorithm>
#include <cmath>

#include "orva_cli/quality_words.h"

namespace orva::cli {
namespace {

std::string paddedRight(const std::string& text, std::size_t width) {
  return text + std::string(width - std::min(width, text.size()), ' ');
}

std::string paddedLeft(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

// JSON has no number for what is none, and for infinities.
const json::Value& shown(const json::Value& value) {
  return value.IsDouble() && !std::isfinite(value.GetDouble()) ? json::nullValue() : value;
}

// Values stand as JSON, so a text of several lines stays on one.
class TableWriter : public RowWriter {
 public:
  TableWriter(Zone zone, std::size_t itemWidth, std::ostream& out)
      : zone_(zone), itemWidth_(std::max<std::size_t>(itemWidth, 4)), out_(out) {}

  void begin() override {
    line(zone_ == Zone::kUtc ? "time (UTC)" : "time (local)", "item", "value", "quality");
  }
  void row(const Row& row) override {
    line(timeText(row.timeMs, zone_), row.item,
         shown(row.value).IsNull() ? "-" : jsonText(row.value), qualityWords(row.quality));
  }

 private:
  void line(const std::string& time, const std::string& item, const std::string& value,
            const std::string& quality) {
    out_ << paddedRight(time, zone_ == Zone::kUtc ? 24 : 29) << "  "
         << paddedRight(item, itemWidth_) << "  " << paddedLeft(value, 12) << "  " << quality
         << '\n';
  }

  const Zone zone_;
  const std::size_t itemWidth_;
  std::ostream& out_;
};

class CsvWriter : public RowWriter {
 public:
  CsvWriter(Zone zone, std::ostream& out) : zone_(zone), out_(out) {}

  void begin() override { out_ << "time,item,value,quality,status\n"; }
  void row(const Row& row) override {
    out_ << timeText(row.timeMs, zone_) << ',' << csvField(row.item) << ','
         << value(shown(row.value)) << ',' << row.quality << ',' << severityWord(row.quality)
         << '\n';
  }

 private:
  // No value is an empty field; a text without characters is one in quotes.
  static std::string value(const json::Value& value) {
    if (value.IsNull()) return {};
    if (!value.IsString()) return csvField(jsonText(value));
    const std::string text(value.GetString(), value.GetStringLength());
    return text.empty() ? "\"\"" : csvField(text);
  }

  const Zone zone_;
  std::ostream& out_;
};

std::string jsonRow(const Row& row) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  writer.StartObject();
  writer.Key("time");
  writer.Int64(row.timeMs);
  writer.Key("item");
  writer.String(row.item);
  writer.Key("value");
  shown(row.value).Accept(writer);
  writer.Key("quality");
  writer.Uint(row.quality);
  writer.Key("status");
  writer.String(severityWord(row.quality));
  writer.EndObject();
  return {text.GetString(), text.GetSize()};
}

class JsonWriter : public RowWriter {
 public:
  explicit JsonWriter(std::ostream& out) : out_(out) {}

  void begin() override { out_ << '['; }
  void row(const Row& row) override {
    out_ << (isFirst_ ? "" : ",\n ") << jsonRow(row);
    isFirst_ = false;
  }
  void end() override { out_ << "]\n"; }

 private:
  bool isFirst_ = true;
  std::ostream& out_;
};

class JsonLinesWriter : public RowWriter {
 public:
  explicit JsonLinesWriter(std::ostream& out) : out_(out) {}

  void begin() override {}
  void row(const Row& row) override { out_ << jsonRow(row) << '\n'; }

 private:
  std::ostream& out_;
};

}  // namespace

std::unique_ptr<RowWriter> makeRowWriter(Format format, Zone zone, std::size_t itemWidth,
                                         std::ostream& out) {
  switch (format) {
    case Format::kCsv:
      return std::make_unique<CsvWriter>(zone, out);
    case Format::kJson:
      return std::make_unique<JsonWriter>(out);
    case Format::kJsonLines:
      return std::make_unique<JsonLinesWriter>(out);
    default:
      return std::make_unique<TableWriter>(zone, itemWidth, out);
  }
}

std::string csvField(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + '"';
}

std::string jsonText(const json::Value& value) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  value.Accept(writer);
  return {text.GetString(), text.GetSize()};
}

}  // namespace orva::cli
