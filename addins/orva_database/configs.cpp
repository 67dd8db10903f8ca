#include "share/archive_configs.h"

namespace orva::archive {

namespace {

using json::member;
using json::Value;

// Whether anything can be read; a null here is what a missing member gives.
bool isReadable(const Value& value) {
  if (value.IsObject()) return true;
  json::traceFailedAssertion("IsObject()", __FILE__, __LINE__);
  return false;
}

std::uint32_t unsignedOr(const Value& value, std::uint32_t otherwise) {
  return value.IsUint() ? value.GetUint() : otherwise;
}

std::int32_t integerOrZero(const Value& value) { return value.IsInt() ? value.GetInt() : 0; }

std::int64_t ticksOr(const Value& value, std::int64_t otherwise) {
  json::readInt64(value, otherwise);
  return otherwise;
}

std::string textOrEmpty(const Value& value) {
  return value.IsString() ? std::string(value.GetString(), value.GetStringLength()) : std::string();
}

}  // namespace

ArchiveCfg::ArchiveCfg(const Value& limits) {
  if (!isReadable(limits)) return;
  writeBufferSize = unsignedOr(member(limits, "writeBufferSize"), writeBufferSize);
  maxSize = unsignedOr(member(limits, "maxSize"), 0);
  maxWriteValues = unsignedOr(member(limits, "maxWriteValues"), maxWriteValues);
  maxDelValues = unsignedOr(member(limits, "maxDelValues"), maxDelValues);
  maxTime = ticksOr(member(limits, "maxTime"), 0);
  writePeriod = ticksOr(member(limits, "writePeriod"), writePeriod);
  cleanupPeriod = ticksOr(member(limits, "cleanupPeriod"), 0);
}

ConnectionCfg::ConnectionCfg(const Value& connection, Type kind) : type(kind) {
  if (!isReadable(connection)) return;
  location = textOrEmpty(member(connection, "location"));
  user = textOrEmpty(member(connection, "user"));
  pass = textOrEmpty(member(connection, "pass"));
  host = textOrEmpty(member(connection, "host"));
  port = integerOrZero(member(connection, "port"));
  providerType = textOrEmpty(member(connection, "providerType"));
  parameters = textOrEmpty(member(connection, "parameters"));
  reconnectTimeout = ticksOr(member(connection, "reconnectTimeout"), reconnectTimeout);
  connectionsCount = integerOrZero(member(connection, "connectionsCount"));
}

}  // namespace orva::archive
