#pragma once

#include <cstdint>

#include "host/host_export.h"
#include "host/opcua_types.h"

// The host's own archive, written by index of a global parameter (host/global_params.h).

struct ArchiveAdapter;  // a handle

using RTime = double;  // seconds since 1970-01-01 00:00 UTC

// A value in the form of global parameters.
struct RPARAMValue {
  enum class Kind : std::uint8_t { floating, boolean, integer };
  Kind kind = Kind::floating;
  double floating = 0;
  std::int32_t integer = 0;  // booleans too: 0 or 1
};

struct ArchiveAdapterValue {
  std::uint32_t index = 0;  // of the global parameter
  RTime time = 0;
  RPARAMValue value;
  std::uint16_t quality = 0;  // OPC DA
};

extern "C" {
ORVA_HOST_API RTime FileTimeToRTime(long long ticks);
// The value in the form that the parameter has. Good (0), or 0x80740000 when it does not fit there
// and 0x803E0000 when there is no such parameter.
ORVA_HOST_API OpcUa_StatusCode GetRPARAMValue(std::uint32_t index, const OpcUa_Variant* value,
                                              RPARAMValue* out);
// OPC DA quality: 0xC0 good, 0x40 uncertain, 0 bad.
ORVA_HOST_API std::uint16_t GetDAQualityByUA(OpcUa_StatusCode status);
// 0, or a negative status with nothing written.
ORVA_HOST_API int ArchiveAdapterWriteValues(ArchiveAdapter* adapter, std::uint32_t count,
                                            const ArchiveAdapterValue* values);
}
