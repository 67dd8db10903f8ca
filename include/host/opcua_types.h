#pragma once

#include <cstdint>

#include "host/host_export.h"

// The OPC UA built-in types (OPC UA Part 6, 5.1.2) in the form in which the host keeps them.

using OpcUa_Byte = std::uint8_t;
using OpcUa_StatusCode = std::uint32_t;

// Numbers of the built-in types.
enum OpcUa_BuiltInType : OpcUa_Byte {
  OpcUaType_Null = 0,
  OpcUaType_Boolean = 1,
  OpcUaType_SByte = 2,
  OpcUaType_Byte = 3,
  OpcUaType_Int16 = 4,
  OpcUaType_UInt16 = 5,
  OpcUaType_Int32 = 6,
  OpcUaType_UInt32 = 7,
  OpcUaType_Int64 = 8,
  OpcUaType_UInt64 = 9,
  OpcUaType_Float = 10,
  OpcUaType_Double = 11,
  OpcUaType_String = 12,
  OpcUaType_DateTime = 13,
  OpcUaType_Guid = 14,
  OpcUaType_ByteString = 15,
  OpcUaType_XmlElement = 16,
  OpcUaType_NodeId = 17,
  OpcUaType_ExpandedNodeId = 18,
  OpcUaType_StatusCode = 19,
  OpcUaType_QualifiedName = 20,
  OpcUaType_LocalizedText = 21,
  OpcUaType_ExtensionObject = 22,
  OpcUaType_DataValue = 23,
  OpcUaType_Variant = 24,
  OpcUaType_DiagnosticInfo = 25,
  OpcUaType_Json = 26,  // the host's own: JSON text held beside the value
};

// Ticks (100 ns since 1601 UTC) as two halves.
struct OpcUa_DateTime {
  std::uint32_t dwLowDateTime;
  std::uint32_t dwHighDateTime;
};

// Text or bytes on the heap: `length` bytes follow, then a NUL that does not count.
struct OpcUa_String;

struct OpcUa_DataValue;
struct OpcUa_VariantArray;

// A value with its type. `ArrayType` 0 is a scalar, 1 an array.
// Pointers are owned; OpcUa_Variant_Clear releases them.
struct OpcUa_Variant {
  OpcUa_Byte Datatype;
  OpcUa_Byte ArrayType;
  std::uint16_t Reserved;
  std::uint32_t Padding;
  union {
    bool Boolean;
    std::int8_t SByte;
    std::uint8_t Byte;
    std::int16_t Int16;
    std::uint16_t UInt16;
    std::int32_t Int32;
    std::uint32_t UInt32;
    std::int64_t Int64;
    std::uint64_t UInt64;  // also the raw bits of every scalar
    float Float;
    double Double;
    OpcUa_DateTime DateTime;
    OpcUa_String* String;  // types 12, 26, and the raw bytes of 14 to 22, 24, 25; may be null
    OpcUa_DataValue* DataValue;
    OpcUa_VariantArray* Array;
  } Value;
};

struct OpcUa_DataValue {
  OpcUa_Variant Value;
  OpcUa_StatusCode StatusCode;
  OpcUa_DateTime SourceTimestamp;
  OpcUa_DateTime ServerTimestamp;
};

// The elements are all of the array's type.
struct OpcUa_VariantArray {
  std::int32_t Length;
  OpcUa_Variant* Items;
};

extern "C" {
ORVA_HOST_API void OpcUa_Variant_Initialize(OpcUa_Variant* value);
// Releases what the value owns and makes it null.
ORVA_HOST_API void OpcUa_Variant_Clear(OpcUa_Variant* value);
// The characters, NUL-terminated; null for a null string or one without text.
ORVA_HOST_API const char* OpcUa_String_GetRawString(const OpcUa_String* text);
// Length in bytes without the NUL; 0 for null.
ORVA_HOST_API std::uint32_t OpcUa_String_StrSize(const OpcUa_String* text);
ORVA_HOST_API void OpcUa_DateTime_FromInt64(std::int64_t ticks, OpcUa_DateTime* out);
ORVA_HOST_API std::int64_t OpcUa_DateTime_ToInt64(const OpcUa_DateTime* value);
}
