#pragma once

#include <string>

#include "host/opcua_types.h"

namespace orva::host {

// The OPC UA name of a built-in type, for example "Double"; "Null" for unknown numbers.
const char* typeName(OpcUa_Byte type);
// False when there is no such name. "Null" is none: no variable has it.
bool typeOfName(const std::string& name, OpcUa_Byte& type);

}  // namespace orva::host
