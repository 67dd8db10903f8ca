#include "orva_host/query_text.h"

namespace orva::host {
namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool decode(std::string_view text, std::string& out) {
  out.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      out += ' ';
    } else if (text[i] != '%') {
      out += text[i];
    } else {
      const int high = i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
      const int low = i + 2 < text.size() ? hexDigit(text[i + 2]) : -1;
      if (high < 0 || low < 0) return false;
      out += static_cast<char>(high * 16 + low);
      i += 2;
    }
  }
  return true;
}

}  // namespace

bool readQuery(std::string_view query, QueryFields& out) {
  out.clear();
  while (!query.empty()) {
    const std::string_view part = query.substr(0, query.find('&'));
    query.remove_prefix(part.size() == query.size() ? part.size() : part.size() + 1);
    if (part.empty()) continue;
    const std::size_t equals = part.find('=');
    std::pair<std::string, std::string> field;
    if (!decode(part.substr(0, equals), field.first)) return false;
    if (equals != std::string_view::npos && !decode(part.substr(equals + 1), field.second)) {
      return false;
    }
    out.push_back(std::move(field));
  }
  return true;
}

}  // namespace orva::host
