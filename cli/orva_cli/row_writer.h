#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "orva_cli/time_phrase.h"
#include "share/json.h"
#include "share/status_codes.h"

namespace orva::cli {

enum class Format {
  kTable,
  kCsv,
  kJson,       // one array
  kJsonLines,  // an object a line, for what has no end
};

// A sample of an item.
struct Row {
  std::int64_t timeMs;
  const std::string& item;
  const json::Value& value;  // null: there is none, or no number
  StatusCode quality;
};

// Writes rows in one of the formats: begin(), rows, end().
class RowWriter {
 public:
  virtual ~RowWriter() = default;
  virtual void begin() = 0;
  virtual void row(const Row& row) = 0;
  virtual void end() {}
};

// `itemWidth` is that of the widest item's path, for tables. `out` outlives the writer.
std::unique_ptr<RowWriter> makeRowWriter(Format format, Zone zone, std::size_t itemWidth,
                                         std::ostream& out);

// The text as one field of a CSV record (RFC 4180): in quotes where it needs them.
std::string csvField(const std::string& text);

// The JSON text of a value, on one line.
std::string jsonText(const json::Value& value);

}  // namespace orva::cli
