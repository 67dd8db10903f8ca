#pragma once

#include <cstdint>

#include "host/host_export.h"
#include "host/opcua_types.h"

// The host's own archive, written by index of a global parameter (host/global_params.h).

struct ArchiveAdapter;  // a handle; the host makes it

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
// Good to some 240 ns in this century: a double has no more digits.
ORVA_HOST_API RTime FileTimeToRTime(long long ticks);

// The value in the form that the parameter has; the field of `out` that its kind does not use is 0.
//   boolean   Boolean, and numbers but NaN: 0 is false
//   integer   Boolean, and numbers whose whole part fits 32 signed bits, the fraction is cut
//   floating  whatever reads as a number: numeric types, Boolean, a String that is one; NaN too
// Good (0); 0x80740000 when it does not fit there, 0x803E0000 when there is no such parameter,
// 0x805A0000 for a null pointer: then `out` stays as it was.
ORVA_HOST_API OpcUa_StatusCode GetRPARAMValue(std::uint32_t index, const OpcUa_Variant* value,
                                              RPARAMValue* out);

// OPC DA quality by the severity of the status: 0xC0 good, 0x40 uncertain, 0 bad.
ORVA_HOST_API std::uint16_t GetDAQualityByUA(OpcUa_StatusCode status);

// 0: all values are written. A negative status, and none is: for a null adapter, null `values` with
// a count, an index that no parameter has, a value of another kind than its parameter's, and a time
// that is no finite number. Thread-safe.
ORVA_HOST_API int ArchiveAdapterWriteValues(ArchiveAdapter* adapter, std::uint32_t count,
                                            const ArchiveAdapterValue* values);
}
