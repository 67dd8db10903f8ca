#pragma once

// RapidJSON as this system uses it. Include this instead of the library's own headers: its
// assertions must be routed the same way everywhere.
//
// An assertion of the library that fails is traced ("<--Assert <condition> failed\n", level 32)
// and does not stop the process. What the library does after one is not to be relied on, so
// nothing here or in the add-ins runs into one: members are found with member() and read with the
// functions below.

#include "host/trace.h"

namespace orva::json {
inline void traceFailedAssertion(const char* condition, const char* file, int line) noexcept {
  OpcUa_Trace_Imp(kTraceWarning, "<--Assert %s failed\n", file, line, condition);
}
}  // namespace orva::json

#ifdef RAPIDJSON_ASSERT
#error "include share/json.h before any RapidJSON header"
#endif
#define RAPIDJSON_ASSERT(x) \
  (static_cast<bool>(x) ? (void)0 : ::orva::json::traceFailedAssertion(#x, __FILE__, __LINE__))

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>
#include <rapidjson/writer.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace orva::json {

using Value = rapidjson::Value;
using Document = rapidjson::Document;

// Deeper texts are refused everywhere.
constexpr int kMaxNesting = 64;

// A value that is null for ever.
inline const Value& nullValue() {
  static const Value null;
  return null;
}

namespace detail {
inline const Value& find(const Value& object, const char* name, bool expected) {
  if (!object.IsObject()) {
    traceFailedAssertion("IsObject()", __FILE__, __LINE__);
    return nullValue();
  }
  const auto found = object.FindMember(name);
  if (found != object.MemberEnd()) return found->value;
  if (expected) traceFailedAssertion("false", __FILE__, __LINE__);
  return nullValue();
}
}  // namespace detail

// The member `name` of an object, or null. A value that is no object traces
// "<--Assert IsObject() failed\n" and gives null.
inline const Value& member(const Value& object, const char* name) {
  return detail::find(object, name, false);
}

// The same for "archives", "limits", "connection" and "filter": a missing one also traces
// "<--Assert false failed\n".
inline const Value& expectedMember(const Value& object, const char* name) {
  return detail::find(object, name, true);
}

// Decimal text, base 10, the one way in which it is read everywhere: leading blanks and a sign
// allowed, stops at the first other character, no digits give 0, overflow saturates.
inline std::int64_t decimalText(const char* text) { return std::strtoll(text, nullptr, 10); }

// A signed 64-bit integer from a 64-bit or 32-bit integer or decimal text. False, with `out` left
// alone, for every other value (also for an unsigned one that does not fit, and any fraction).
inline bool readInt64(const Value& value, std::int64_t& out) {
  if (value.IsInt64()) {
    out = value.GetInt64();
  } else if (value.IsString()) {
    out = decimalText(value.GetString());
  } else {
    return false;
  }
  return true;
}

// Whether `text` nests deeper than kMaxNesting, and where it does so first. Looks at brackets
// outside strings only, so it works on any text. Constant memory.
inline bool nestsTooDeep(const char* text, std::size_t length, std::size_t* where = nullptr) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < length; ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '{' || c == '[') {
      if (++depth > kMaxNesting) {
        if (where != nullptr) *where = i;
        return true;
      }
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return false;
}

}  // namespace orva::json
