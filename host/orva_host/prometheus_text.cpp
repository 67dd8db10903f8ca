#include "orva_host/prometheus_text.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string_view>

#include "host/trace.h"
#include "orva_host/number_text.h"

namespace orva::host {
namespace {

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Also of label names, for which two underscores at the head are reserved.
bool isName(const char* text, bool colons) {
  if (text == nullptr || *text == '\0' || isDigit(*text)) return false;
  return std::all_of(text, text + std::strlen(text), [colons](char c) {
    return isLetter(c) || isDigit(c) || c == '_' || (colons && c == ':');
  });
}
bool isLabelName(const char* text) {
  return isName(text, false) && std::strncmp(text, "__", 2) != 0;
}

// How many bytes the character takes that `text` begins with; 0 when they are no UTF-8.
std::size_t characterSize(std::string_view text) {
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char head = byte(0);
  if (head < 0x80) return 1;
  const std::size_t size = head >= 0xF0 ? 4 : head >= 0xE0 ? 3 : 2;
  if (head < 0xC2 || head > 0xF4 || text.size() < size) return 0;
  for (std::size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  const unsigned char second = byte(1);
  const bool overlong = (head == 0xE0 && second < 0xA0) || (head == 0xF0 && second < 0x90);
  const bool noCharacter = (head == 0xED && second > 0x9F) || (head == 0xF4 && second > 0x8F);
  return overlong || noCharacter ? 0 : size;
}

// Backslashes and line ends escaped, quotes too within a label; bytes that are no UTF-8 replaced.
std::string escaped(std::string_view text, bool isLabel) {
  std::string out;
  while (!text.empty()) {
    const std::size_t size = characterSize(text);
    if (size == 0) {
      out += "\xEF\xBF\xBD";
    } else if (text[0] == '\n') {
      out += "\\n";
    } else {
      if (text[0] == '\\' || (isLabel && text[0] == '"')) out += '\\';
      out += text.substr(0, size);
    }
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return out;
}

std::string numberText(double number) {
  if (std::isnan(number)) return "NaN";
  if (std::isinf(number)) return number > 0 ? "+Inf" : "-Inf";
  return textOf(number);
}
std::string numberText(std::int64_t number) { return std::to_string(number); }
std::string numberText(std::uint64_t number) { return std::to_string(number); }

std::string labelText(const metrics::Label& label) {
  return std::string(label.name) + "=\"" + escaped(label.value, true) + "\"";
}

std::string joined(const std::vector<std::string>& labels) {
  std::string text;
  for (const std::string& label : labels) text += (text.empty() ? "" : ",") + label;
  return text;
}

bool areLabels(const metrics::Labels& labels) {
  std::set<std::string> names;
  return std::all_of(labels.begin(), labels.end(), [&names](const metrics::Label& label) {
    return isLabelName(label.name) && names.insert(label.name).second;
  });
}

const char* kindText(metrics::Kind kind) {
  return kind == metrics::Kind::counter ? "counter" : "gauge";
}

void traceLeftOut(const metrics::Family& family, const char* why) {
  OpcUa_Trace_Imp(kTraceError, "a sample of the metric \"%.200s\" is left out: %s\n", __FILE__,
                  __LINE__, family.name == nullptr ? "" : family.name, why);
}

}  // namespace

PrometheusText::FamilyText& PrometheusText::familyText(const metrics::Family& family) {
  const auto [place, isNew] = places_.emplace(family.name, families_.size());
  if (isNew) {
    const char* const help = family.help == nullptr ? "" : family.help;
    families_.push_back({family.name, family.kind, escaped(help, false), {}, {}});
  }
  return families_[place->second];
}

void PrometheusText::take(const metrics::Family& family, const metrics::Labels& labels,
                          metrics::Value value) {
  if (!isName(family.name, true)) return traceLeftOut(family, "this is no name");
  if (!areLabels(labels)) return traceLeftOut(family, "its labels have no proper names");
  FamilyText& to = familyText(family);
  if (to.kind != family.kind) return traceLeftOut(family, "it is of another kind than the first");
  std::vector<std::string> texts;
  for (const metrics::Label& label : labels) texts.push_back(labelText(label));
  const std::string shown = joined(texts);
  std::sort(texts.begin(), texts.end());
  if (!to.labelSets.insert(joined(texts)).second) {
    return traceLeftOut(family, "there is one with these labels");
  }
  const auto number = std::visit([](auto n) { return numberText(n); }, value.number());
  to.lines += to.name + (shown.empty() ? "" : "{" + shown + "}") + " " + number + "\n";
}

std::string PrometheusText::text() const {
  std::string text;
  for (const FamilyText& family : families_) {
    if (family.lines.empty()) continue;
    text += "# HELP " + family.name + " " + family.help + "\n";
    text += "# TYPE " + family.name + " " + kindText(family.kind) + "\n";
    text += family.lines;
  }
  return text;
}

}  // namespace orva::host
