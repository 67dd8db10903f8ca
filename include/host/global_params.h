#pragma once

#include <cstdint>

#include "host/host_export.h"

// The host's global parameters: live values that programs share, found by id.

struct GlobalParamKey {
  std::uint32_t id;
  std::uint32_t qualifier;  // which table: 0x10000 or 0
};

// The top two bits of `bytes[1]` are the kind: 1 boolean, 2 integer, anything else floating point.
struct GlobalParamDescriptor {
  std::uint8_t bytes[4];
};

extern "C" {
// 0 and the index, or a non-zero result when there is no such parameter.
ORVA_HOST_API int GetGlobalArrayIndexByID(const GlobalParamKey* key, std::uint32_t* index);
// Valid for the life of the process.
ORVA_HOST_API const GlobalParamDescriptor* GetGlobalParam(std::uint32_t index);
// 0 and the value, or a non-zero result when the parameter has no readable value.
ORVA_HOST_API int iReadBoolean(std::uint32_t index, int* value);
ORVA_HOST_API int iReadInteger(std::uint32_t index, std::int32_t* value);
ORVA_HOST_API int iReadFloat(std::uint32_t index, double* value);
}
