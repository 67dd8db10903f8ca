#include "orva_host/number_text.h"

#include <charconv>

namespace orva::host {
namespace {

// std::from_chars takes no plus sign.
std::string_view withoutPlus(std::string_view text) {
  if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
  return text;
}

template <class T>
bool readWhole(std::string_view text, T& out) {
  const std::string_view digits = withoutPlus(text);
  T number{};
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (digits.empty() || error != std::errc() || end != digits.data() + digits.size()) return false;
  out = number;
  return true;
}

template <class T>
std::string shortest(T number) {
  char text[64];
  const auto result = std::to_chars(text, text + sizeof text, number);
  return std::string(text, result.ptr);
}

}  // namespace

bool readWholeInt64(std::string_view text, std::int64_t& out) { return readWhole(text, out); }
bool readWholeUInt64(std::string_view text, std::uint64_t& out) { return readWhole(text, out); }

bool readWholeDouble(std::string_view text, double& out) {
  if (text.find_first_not_of("0123456789+-.eE") != std::string_view::npos) return false;
  return readWhole(text, out);
}

std::string textOf(double number) { return shortest(number); }
std::string textOf(float number) { return shortest(number); }

}  // namespace orva::host
