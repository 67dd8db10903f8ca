#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "host/opcua_variant.h"
#include "orva_host/command_words.h"

namespace orva::host {

// Values as words of commands.
//   any type    null, without quotes
//   Boolean     true, false
//   integers    decimal
//   Float, Double  decimal, nan, inf, -inf
//   DateTime    as readUtc() reads it, or ticks
//   String, Json   the text; shown in quotes

// False, with `out` left alone, when the word is no value of the type. A type that is not known
// (Null) takes every word as String.
bool readValueWord(const CommandWord& word, OpcUa_Byte type, OpcUa_VariantHlp& out);

// One word. Of the types above it reads back as the same value, of others it is for people.
std::string valueWord(const OpcUa_VariantHlp& value);

// A time as readUtc() reads it, or ticks.
bool readTime(std::string_view text, std::int64_t& ticks);

}  // namespace orva::host
