#include "share/reply_writer.h"

#include <array>
#include <cmath>

#include "orva_database/number_text.h"

namespace orva {
namespace {

// What follows the backslash of an escaped character; 0 for a character that stands for itself.
std::array<char, 256> makeEscapes() {
  std::array<char, 256> escapes{};
  for (int c = 0; c < 0x20; ++c) escapes[static_cast<unsigned>(c)] = 'u';
  escapes['\b'] = 'b';
  escapes['\t'] = 't';
  escapes['\n'] = 'n';
  escapes['\f'] = 'f';
  escapes['\r'] = 'r';
  escapes['"'] = '"';
  escapes['\\'] = '\\';
  return escapes;
}
const std::array<char, 256> kEscapes = makeEscapes();

char* writeEscaped(char* out, unsigned char c, char escape) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  *out++ = '\\';
  *out++ = escape;
  if (escape == 'u') {
    *out++ = '0';
    *out++ = '0';
    *out++ = kHex[c >> 4];
    *out++ = kHex[c & 0xF];
  }
  return out;
}

}  // namespace

bool ReplyWriter::Int64(std::int64_t value) {
  char digits[1 + text::kIntegerRoom];
  return Prepared(digits + 1, text::writeInteger(digits + 1, value));
}

bool ReplyWriter::Uint64(std::uint64_t value) {
  char digits[1 + text::kIntegerRoom];
  return Prepared(digits + 1, text::writeUnsigned(digits + 1, value));
}

bool ReplyWriter::Double(double value) {
  if (!std::isfinite(value)) return Null();
  char digits[1 + text::kDoubleRoom];
  return Prepared(digits + 1, text::writeDouble(digits + 1, value));
}

bool ReplyWriter::String(const char* text, rapidjson::SizeType length, bool) {
  char chunk[256];
  char* const full = chunk + sizeof chunk - 8;  // an escaped character and the closing quote fit
  char* end = chunk;
  if (const char before = separator()) *end++ = before;
  *end++ = '"';
  for (const char* const behind = text + length; text != behind; ++text) {
    if (end >= full) {
      os_->Write(chunk, static_cast<std::size_t>(end - chunk));
      end = chunk;
    }
    const auto c = static_cast<unsigned char>(*text);
    if (const char escape = kEscapes[c]) {
      end = writeEscaped(end, c, escape);
    } else {
      *end++ = *text;
    }
  }
  *end++ = '"';
  os_->Write(chunk, static_cast<std::size_t>(end - chunk));
  return EndValue(true);
}

bool ReplyWriter::String(const char* text) {
  return String(text, static_cast<rapidjson::SizeType>(std::strlen(text)));
}

bool ReplyWriter::String(const std::string& text) {
  return String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

bool ReplyWriter::RawText(const char* text, std::size_t length) {
  if (const char before = separator()) os_->Put(before);
  os_->Write(text, length);
  return EndValue(true);
}

}  // namespace orva
