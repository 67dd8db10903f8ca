#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/opcua_variant.h"
#include "orva_host/csv_reader.h"

namespace orva::host {

// One row of a recorded plant: a sample of an item. The columns are
//   time_ms   milliseconds since 1970-01-01 UTC
//   item_id   the variable's id
//   path      and path
//   type      double, float, int64, uint32, bool or string
//   value     a number, NaN, Inf or -Inf, true or false, or text
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

}  // namespace orva::host
