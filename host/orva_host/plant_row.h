#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/opcua_variant.h"
#include "orva_host/csv_reader.h"

namespace orva::host {

// One row of a recorded plant: a sample of an item. The columns are
//   time_ms   milliseconds since 1970-01-01 UTC, with up to four decimals where they are not 0
//   item_id   the variable's id
//   path      and path
//   type      double, float, int64, uint32, bool or string; also int8, uint8, int16, uint16,
//             int32, uint64, datetime, json and null
//   value     a number, NaN, Inf or -Inf, true or false, or text; of a datetime its ticks
//   quality   OPC UA status code, decimal
struct PlantRow {
  std::int64_t ticks = 0;
  std::int64_t id = 0;
  std::string path;
  OpcUa_VariantHlp value;
  OpcUa_StatusCode quality = 0;
};

// The first line of such a file.
extern const char* const kPlantHeader;
bool isPlantHeader(const std::vector<CsvReader::Field>& record);

// Null, or why the record is no row.
const char* parsePlantRow(const std::vector<CsvReader::Field>& record, PlantRow& out);

// The other way round, in one form for one sample: the shortest text of a number that reads back as
// the same one, texts in quotes only where they must be. A String without text is an empty one.

// The columns item_id and path, which many rows have in common.
std::string plantRowItem(std::int64_t id, const std::string& path);
// A whole line; `item` is from plantRowItem().
void appendPlantRow(const std::string& item, std::int64_t ticks, const OpcUa_VariantHlp& value,
                    OpcUa_StatusCode quality, std::string& out);

}  // namespace orva::host
