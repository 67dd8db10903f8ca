#include "orva_host/csv_reader.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace orva::host {

namespace {

constexpr std::size_t kBufferBytes = 64 * 1024;
constexpr int kEnd = -1;
constexpr const char* kUnended = "a quoted field does not end";
constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

// Takes a record's bytes one by one.
class RecordParser {
 public:
  enum class Step { more, done, bad };

  explicit RecordParser(std::vector<CsvReader::Field>& record) : record_(record) { addField(); }

  Step feed(int c) {
    if (state_ == State::quoted) return feedQuoted(c);
    if (c == '\n' || c == kEnd) return finish();
    if (c == ',') {
      addField();
    } else if (c == '"' && state_ == State::fieldStart) {
      field_->quoted = true;
      state_ = State::quoted;
    } else if (c == '"' && state_ == State::quoteInQuoted) {
      field_->text.push_back('"');
      state_ = State::quoted;
    } else if (c != '\r' && state_ == State::quoteInQuoted) {
      error_ = "text after a closing quote";
      return Step::bad;
    } else if (c != '\r' || state_ == State::plain) {
      field_->text.push_back(static_cast<char>(c));
      state_ = State::plain;
    }
    return Step::more;
  }
  bool inQuotes() const { return state_ == State::quoted; }
  const char* error() const { return error_; }

 private:
  enum class State { fieldStart, plain, quoted, quoteInQuoted };

  Step feedQuoted(int c) {
    if (c == kEnd) {
      error_ = kUnended;
      return Step::bad;
    }
    if (c == '"') {
      state_ = State::quoteInQuoted;
    } else {
      field_->text.push_back(static_cast<char>(c));
    }
    return Step::more;
  }

  Step finish() {
    std::string& text = field_->text;
    if (state_ == State::plain && text.back() == '\r') text.pop_back();
    record_.resize(count_);
    return Step::done;
  }

  void addField() {
    if (++count_ > record_.size()) record_.resize(count_);
    field_ = &record_[count_ - 1];
    field_->text.clear();
    field_->quoted = false;
    state_ = State::fieldStart;
  }

  std::vector<CsvReader::Field>& record_;
  std::size_t count_ = 0;
  CsvReader::Field* field_ = nullptr;
  State state_ = State::fieldStart;
  const char* error_ = nullptr;
};

}  // namespace

CsvReader::~CsvReader() {
  if (file_ != nullptr) static_cast<void>(std::fclose(file_));  // nothing was written
}

int CsvReader::open(const std::string& path) {
  file_ = std::fopen(path.c_str(), "rbe");
  if (file_ == nullptr) return errno;
  struct stat info {};
  if (::fstat(::fileno(file_), &info) == 0 && S_ISDIR(info.st_mode)) return EISDIR;
  buffer_.resize(kBufferBytes);
  fill();
  if (end_ >= 3 && std::memcmp(buffer_.data(), kByteOrderMark, 3) == 0) begin_ = 3;
  return 0;
}

bool CsvReader::fill() {
  begin_ = 0;
  end_ = std::fread(buffer_.data(), 1, buffer_.size(), file_);
  filled_ += end_;
  if (end_ == 0 && std::ferror(file_) != 0) error_ = "the file cannot be read any further";
  return end_ != 0;
}

int CsvReader::getByte() {
  if (begin_ == end_ && !fill()) return kEnd;
  const char c = buffer_[begin_++];
  if (c == '\n') ++nextLine_;
  return static_cast<unsigned char>(c);
}

void CsvReader::skipLine() {
  int c = 0;
  while (c != '\n' && c != kEnd) c = getByte();
}

CsvReader::Result CsvReader::next(std::vector<Field>& out) {
  error_ = nullptr;
  int c = 0;
  do {
    line_ = nextLine_;
    c = getByte();
  } while (c == '\n' || c == '\r');
  if (c == kEnd) return Result::end;

  RecordParser parser(out);
  for (std::size_t bytes = 0; bytes < kMaxRecord; ++bytes, c = getByte()) {
    const RecordParser::Step step = parser.feed(c);
    if (step == RecordParser::Step::done) return Result::record;
    if (step == RecordParser::Step::bad) {
      error_ = parser.error();
      skipLine();
      return Result::bad;
    }
  }
  error_ = parser.inQuotes() ? kUnended : "the row is too long";
  if (c != '\n') skipLine();  // else the line is over, and the next one a row of its own
  return Result::bad;
}

}  // namespace orva::host
