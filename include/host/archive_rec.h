#pragma once

#include <cstdint>
#include <utility>

#include "host/opcua_variant.h"

// One sample as the older archive interface passes it.
struct ArchiveRec {
  ArchiveRec() = default;
  ArchiveRec(std::int64_t at, OpcUa_VariantHlp what, OpcUa_StatusCode code = 0, int of = 0)
      : time(at), value(std::move(what)), status(code), item(of) {}

  std::int64_t time = 0;  // ticks (100 ns since 1601 UTC)
  OpcUa_VariantHlp value;
  OpcUa_StatusCode status = 0;  // the sample's quality
  int item = 0;                 // in answers: the legacy id of the item it belongs to
};
