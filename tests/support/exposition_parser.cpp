#include "support/exposition_parser.h"

#include <cmath>
#include <cstdlib>
#include <limits>
#include <set>
#include <stdexcept>

namespace orva::test {
namespace {

// Reads one line from left to right; throws what is wrong with it.
class LineReader {
 public:
  explicit LineReader(std::string line) : line_(std::move(line)) {}

  bool atEnd() const { return at_ == line_.size(); }
  bool skip(const std::string& text) {
    if (line_.compare(at_, text.size(), text) != 0) return false;
    at_ += text.size();
    return true;
  }
  void expect(const std::string& text) {
    if (!skip(text)) throw std::runtime_error("expected \"" + text + "\"");
  }
  std::string rest() {
    const std::string text = line_.substr(at_);
    at_ = line_.size();
    return text;
  }

  std::string name(bool colons) {
    const std::size_t begin = at_;
    while (!atEnd() && isOfName(line_[at_], colons, at_ == begin)) ++at_;
    if (at_ == begin) throw std::runtime_error("expected a name");
    return line_.substr(begin, at_ - begin);
  }

  // Up to the quote that is not escaped.
  std::string quoted() {
    expect("\"");
    std::string text;
    for (;;) {
      if (atEnd()) throw std::runtime_error("a label's value does not end");
      if (skip("\"")) return text;
      text += character("\\\"n");
    }
  }
  std::string helpText() {
    std::string text;
    while (!atEnd()) text += character("\\n");
    return text;
  }

 private:
  static bool isOfName(char c, bool colons, bool first) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_') return true;
    return (colons && c == ':') || (!first && c >= '0' && c <= '9');
  }
  char character(const std::string& escapable) {
    const char c = line_[at_++];
    if (c != '\\') return c;
    if (atEnd() || escapable.find(line_[at_]) == std::string::npos) {
      throw std::runtime_error("a backslash that escapes nothing");
    }
    const char escaped = line_[at_++];
    return escaped == 'n' ? '\n' : escaped;
  }

  const std::string line_;
  std::size_t at_ = 0;
};

double numberOf(const std::string& text) {
  if (text == "NaN") return std::numeric_limits<double>::quiet_NaN();
  if (text == "+Inf") return std::numeric_limits<double>::infinity();
  if (text == "-Inf") return -std::numeric_limits<double>::infinity();
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  if (text.empty() || text.find_first_not_of("0123456789+-.eE") != std::string::npos ||
      end != text.c_str() + text.size()) {
    throw std::runtime_error("\"" + text + "\" is no number");
  }
  return number;
}

using Families = std::map<std::string, MetricFamily>;

class Parser {
 public:
  explicit Parser(Families& families) : families_(families) {}

  void line(const std::string& text) {
    LineReader reader(text);
    if (reader.skip("# HELP ")) {
      help(reader);
    } else if (reader.skip("# TYPE ")) {
      type(reader);
    } else if (text.empty() || text[0] == '#') {
      throw std::runtime_error("a line that says nothing");
    } else {
      sample(reader);
    }
  }

  void end() {
    for (const auto& [name, family] : families_) {
      if (family.samples.empty()) throw std::runtime_error(name + " has no samples");
    }
  }

 private:
  void help(LineReader& reader) {
    const std::string name = reader.name(true);
    reader.expect(" ");
    if (!families_.emplace(name, MetricFamily()).second) {
      throw std::runtime_error("a second HELP, or a family in two pieces");
    }
    current_ = name;
    families_[name].help = reader.helpText();
  }

  void type(LineReader& reader) {
    const std::string name = reader.name(true);
    reader.expect(" ");
    const std::string type = reader.rest();
    static const std::set<std::string> kTypes{"counter", "gauge", "histogram", "summary",
                                              "untyped"};
    if (kTypes.count(type) == 0) throw std::runtime_error("\"" + type + "\" is no type");
    if (name != current_) throw std::runtime_error("a TYPE without its HELP before it");
    MetricFamily& family = families_[name];
    if (!family.type.empty()) throw std::runtime_error("a second TYPE");
    if (!family.samples.empty()) throw std::runtime_error("a TYPE after samples");
    family.type = type;
  }

  void sample(LineReader& reader) {
    const std::string name = reader.name(true);
    if (name != current_) throw std::runtime_error("a sample away from its HELP and TYPE");
    MetricFamily& family = families_[name];
    if (family.type.empty()) throw std::runtime_error("a sample without TYPE");
    MetricSample read;
    if (reader.skip("{")) labels(reader, read);
    reader.expect(" ");
    read.valueText = reader.rest();
    read.value = numberOf(read.valueText);
    if (family.type == "counter" && !(read.value >= 0)) {
      throw std::runtime_error("a counter that is no number of things");
    }
    for (const MetricSample& other : family.samples) {
      if (other.labels == read.labels) throw std::runtime_error("the same labels again");
    }
    family.samples.push_back(read);
  }

  static void labels(LineReader& reader, MetricSample& to) {
    while (!reader.skip("}")) {
      if (!to.labels.empty()) reader.expect(",");
      const std::string label = reader.name(false);
      if (label.compare(0, 2, "__") == 0) throw std::runtime_error("a reserved label");
      reader.expect("=");
      if (!to.labels.emplace(label, reader.quoted()).second) {
        throw std::runtime_error("a label twice");
      }
    }
  }

  Families& families_;
  std::string current_;  // the family that lines belong to
};

}  // namespace

Exposition::Exposition(const std::string& text) {
  Parser parser(families_);
  std::string line;
  try {
    for (std::size_t begin = 0; begin < text.size();) {
      const std::size_t end = text.find('\n', begin);
      line = text.substr(begin, end - begin);
      if (end == std::string::npos) throw std::runtime_error("the last line has no end");
      parser.line(line);
      begin = end + 1;
    }
    line.clear();
    parser.end();
  } catch (const std::exception& problem) {
    error_ = std::string(problem.what()) + ": " + line;
  }
}

double Exposition::value(const std::string& family,
                         const std::map<std::string, std::string>& labels) const {
  const auto found = families_.find(family);
  if (found != families_.end()) {
    for (const MetricSample& sample : found->second.samples) {
      if (sample.labels == labels) return sample.value;
    }
  }
  return std::numeric_limits<double>::quiet_NaN();
}

double Exposition::sum(const std::string& family) const {
  double sum = 0;
  const auto found = families_.find(family);
  if (found == families_.end()) return 0;
  for (const MetricSample& sample : found->second.samples) sum += sample.value;
  return sum;
}

}  // namespace orva::test
