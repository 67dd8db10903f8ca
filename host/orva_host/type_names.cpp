#include "orva_host/type_names.h"

namespace orva::host {
namespace {

const char* const kTypeNames[] = {
    "Null",          "Boolean",       "SByte",           "Byte",           "Int16",
    "UInt16",        "Int32",         "UInt32",          "Int64",          "UInt64",
    "Float",         "Double",        "String",          "DateTime",       "Guid",
    "ByteString",    "XmlElement",    "NodeId",          "ExpandedNodeId", "StatusCode",
    "QualifiedName", "LocalizedText", "ExtensionObject", "DataValue",      "Variant",
    "DiagnosticInfo"};
constexpr OpcUa_Byte kCount = sizeof kTypeNames / sizeof kTypeNames[0];

}  // namespace

const char* typeName(OpcUa_Byte type) { return kTypeNames[type < kCount ? type : 0]; }

bool typeOfName(const std::string& name, OpcUa_Byte& type) {
  for (OpcUa_Byte candidate = 1; candidate < kCount; ++candidate) {
    if (name != kTypeNames[candidate]) continue;
    type = candidate;
    return true;
  }
  return false;
}

}  // namespace orva::host
