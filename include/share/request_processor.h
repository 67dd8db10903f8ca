#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include "host/critical_section.h"
#include "host/request_dispatch.h"
#include "host/trace.h"
#include "share/json.h"
#include "share/reply_buffer.h"
#include "share/reply_writer.h"
#include "share/status_codes.h"

// The frame of a JSON request to an add-in, the same for every add-in that serves some:
//
//   request:  <anything>@/Methods/<Name>      address line; the "<anything>@" may be missing
//             <who asks>                      caller line
//             {...}                           JSON body, to the end of the text
//   reply:    {<the method's members>,"code":0}

namespace orva {

// The parts of a request text, as views into it.
struct RequestFrame {
  std::string_view prefix;  // the address line up to its first '@', this included
  std::string_view method;  // what follows, or the whole line
  std::string_view caller;
  std::string_view body;
  bool bodyIgnored = false;  // requests of the login and state pages carry no JSON

  // 0, or 0x80B60000 when a line end is missing.
  StatusCode split(const void* request, int length) {
    const std::string_view text(
        static_cast<const char*>(request),
        request != nullptr && length > 0 ? static_cast<unsigned>(length) : 0);
    const std::size_t address = text.find('\n');
    if (address == std::string_view::npos) return refuse("posSource == NULL");
    const std::size_t second = text.find('\n', address + 1);
    if (second == std::string_view::npos) return refuse("pos == NULL");
    method = text.substr(0, address);
    caller = text.substr(address + 1, second - address - 1);
    body = text.substr(second + 1);
    if (const std::size_t at = method.find('@'); at != std::string_view::npos) {
      prefix = method.substr(0, at + 1);
      method.remove_prefix(at + 1);
    }
    bodyIgnored =
        startsWith(text, "/Methods/GetLoginData") || startsWith(text, "/Methods/GetState");
    return status::kGood;
  }

 private:
  static StatusCode refuse(const char* condition) {
    OpcUa_Trace_Imp(kTraceError, "<-- ReturnError: %s evaluated to true! Returning 0x%08X\n",
                    __FILE__, __LINE__, condition, status::kBadRequest);
    return status::kBadRequest;
  }
  // The text has no terminator: nothing behind its end may be looked at.
  static bool startsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
  }
};

// The body of a request, parsed. Strings of the document lie in a copy of the body, which lives as
// long as this object.
class RequestBody {
 public:
  RequestBody() : document_(&allocator_, kParseStackBytes) {}

  const json::Document& document() const { return document_; }

  // 0, or 0x80B60000 and one line in the log.
  StatusCode parse(const RequestFrame& frame) {
    copy_.reset(new char[frame.body.size() + 1]);
    if (!frame.body.empty()) std::memcpy(copy_.get(), frame.body.data(), frame.body.size());
    copy_[frame.body.size()] = '\0';
    if (frame.bodyIgnored) return status::kGood;
    std::size_t where = 0;
    if (json::nestsTooDeep(copy_.get(), frame.body.size(), &where)) {
      return refuse(frame, "Nested too deep.", where);
    }
    document_.ParseInsitu<rapidjson::kParseIterativeFlag>(copy_.get());
    if (!document_.HasParseError()) return status::kGood;
    return refuse(frame, rapidjson::GetParseError_En(document_.GetParseError()),
                  document_.GetErrorOffset());
  }

 private:
  static constexpr std::size_t kFirstBytes = 2048;  // enough for most requests
  static constexpr std::size_t kChunkBytes = 65536;
  static constexpr std::size_t kParseStackBytes = 1024;

  // The line ends with "request=" and does not print the body: that may be long, and secret.
  static StatusCode refuse(const RequestFrame& frame, const char* error, std::size_t offset) {
    // From the caller's text, since parsing in place has rewritten the copy.
    const std::string excerpt(frame.body.substr(std::min(offset, frame.body.size()), 50));
    logMsg("Error parsing request for method %s (%s) : %s (pos %ld : %s) request=\n",
           std::string(frame.method).c_str(), std::string(frame.caller).c_str(), error,
           static_cast<long>(offset), excerpt.c_str());
    return status::kBadRequest;
  }

  alignas(std::max_align_t) char first_[kFirstBytes];
  rapidjson::MemoryPoolAllocator<> allocator_{first_, sizeof first_, kChunkBytes};
  std::unique_ptr<char[]> copy_;
  json::Document document_;
};

// The two handlers of an add-in's JSON methods, to be registered with the object as context. T
// derives from this class and supplies
//
//   struct Methods { static const std::map<std::string, int, std::less<>>& Name(); };
//   StatusCode CallMethod(const std::string& path, const std::string& callerInfo,
//                         const json::Document& request, ReplyWriter& reply, int budget);
//
// where CallMethod writes members of the open reply object, at most `budget` bytes.
//
// The handlers are called on any of the host's request threads, several at a time. Nothing thrown
// leaves them: it is answered 0x80030000.
template <class T>
class CRequestProcessor {
 public:
  // Replies into a std::ostream, passed as `out`.
  static int ProcessJSONRequestStream(void* context, int /*ignored*/, const void* request,
                                      int length, void* out, int /*ignoredCapacity*/,
                                      int* outLength) noexcept {
    StreamOutBuf buffer(static_cast<std::ostream*>(out));
    try {
      return asInt(self(context).serveStream(request, length, buffer, outLength));
    } catch (...) {
      traceException();
      setLength(outLength, buffer.Length());
      return asInt(status::kBadOutOfMemory);
    }
  }

  // Replies into `outCapacity` bytes at `out`, NUL-terminated.
  static int ProcessJSONRequest(void* context, int /*ignored*/, const void* request, int length,
                                void* out, int outCapacity, int* outLength) noexcept {
    FixedOutBuf buffer(static_cast<char*>(out), out != nullptr ? outCapacity : 0);
    try {
      return asInt(self(context).serveBuffer(request, length, buffer, outLength));
    } catch (...) {
      traceException();
      return asInt(answerFresh(buffer, status::kBadOutOfMemory, outLength));
    }
  }

 protected:
  explicit CRequestProcessor(const char* sectionName)
      : section_(RInitCriticalSection(sectionName)) {}
  ~CRequestProcessor() { RDoneCriticalSection(section_); }
  CRequestProcessor(const CRequestProcessor&) = delete;
  CRequestProcessor& operator=(const CRequestProcessor&) = delete;

 private:
  RCriticalSection* const section_;  // held to assign and empty `caller`, for nothing else

 protected:
  std::string caller;  // who asks, for the length of one request; requests overwrite each other's

 private:
  // What holds while a request is served, and ends with it on every way out.
  class Served {
   public:
    explicit Served(CRequestProcessor& processor) : processor_(processor) {}
    ~Served() {
      processor_.setCaller({});
      SetFastCGIText(nullptr);
    }
    Served(const Served&) = delete;
    Served& operator=(const Served&) = delete;

   private:
    CRequestProcessor& processor_;
  };
  struct Section {
    explicit Section(RCriticalSection* section) : held(section) { REnterCriticalSection(held); }
    ~Section() { RLeaveCriticalSection(held); }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;
    RCriticalSection* const held;
  };

  static CRequestProcessor& self(void* context) { return *static_cast<T*>(context); }
  static int asInt(StatusCode code) { return static_cast<int>(code); }
  static void setLength(int* outLength, long long length) {
    constexpr long long kMost = std::numeric_limits<int>::max();
    if (outLength != nullptr) {
      *outLength = static_cast<int>(std::min(std::max(length, 0LL), kMost));
    }
  }

  static void traceException() {
    OpcUa_Trace_Imp(kTraceError, "<--ReturnError: request throws, returns 0x%08X\n", __FILE__,
                    __LINE__, status::kBadOutOfMemory);
  }

  void setCaller(std::string_view text) {
    Section section(section_);
    caller = text;
  }

  // The registered path, or null.
  static const std::string* methodPath(const RequestFrame& frame) {
    const auto& methods = T::Methods::Name();
    const auto found = methods.find(frame.method);
    return found == methods.end() ? nullptr : &found->first;
  }

  StatusCode serveStream(const void* request, int length, StreamOutBuf& buffer, int* outLength) {
    RequestFrame frame;
    if (const StatusCode code = frame.split(request, length)) return code;
    const std::string* const path = methodPath(frame);
    if (path == nullptr) return status::kBadNotSupported;
    const Served served(*this);
    SetFastCGIText(static_cast<const char*>(request));
    setCaller(frame.caller);
    ReplyWriter writer(buffer);
    const StatusCode code = answer(frame, *path, writer, std::numeric_limits<int>::max());
    close(writer, code);
    setLength(outLength, buffer.Length());
    return code;
  }

  StatusCode serveBuffer(const void* request, int length, FixedOutBuf& buffer, int* outLength) {
    RequestFrame frame;
    if (const StatusCode code = frame.split(request, length)) return code;
    const std::string* const path = methodPath(frame);
    if (path == nullptr) return status::kBadNotSupported;
    const Served served(*this);
    SetFastCGIText(static_cast<const char*>(request));
    setCaller(frame.caller);
    if (buffer.capacity > 0) *buffer.begin = '\0';
    ReplyWriter writer(buffer);
    const StatusCode code = answer(frame, *path, writer, buffer.capacity);
    if (buffer.overflow_) return answerFresh(buffer, status::kBadEncodingLimits, outLength);
    close(writer, code);
    return terminate(buffer, outLength) ? code : status::kBadEncodingLimits;
  }

  // Opens the reply and lets the method write its members.
  StatusCode answer(const RequestFrame& frame, const std::string& path, ReplyWriter& writer,
                    int budget) {
    RequestBody body;
    const StatusCode parsed = body.parse(frame);
    writer.StartObject();
    if (isBad(parsed)) return parsed;
    std::string callerInfo;
    callerInfo.reserve(frame.prefix.size() + frame.caller.size());
    callerInfo.append(frame.prefix).append(frame.caller);
    return static_cast<T&>(*this).CallMethod(path, callerInfo, body.document(), writer, budget);
  }

  static void close(ReplyWriter& writer, StatusCode code) {
    writer.Key("code");
    writer.Uint(code);
    writer.EndObject();
  }

  // Ends a whole reply. What does not fit leaves the text and the length as they are.
  static bool terminate(FixedOutBuf& buffer, int* outLength) {
    const long long length = buffer.Length();
    buffer.Put('\0');
    if (buffer.overflow_) {
      OpcUa_Trace_Imp(kTraceError,
                      "<-- ReturnError: os.overflow_ evaluated to true! Returning 0x%08X\n",
                      __FILE__, __LINE__, status::kBadEncodingLimits);
      return false;
    }
    setLength(outLength, length);
    return true;
  }

  // Puts a reply of nothing but the code in place of what was written.
  static StatusCode answerFresh(const FixedOutBuf& written, StatusCode code, int* outLength) {
    FixedOutBuf buffer(written.begin, written.capacity);
    ReplyWriter writer(buffer);
    writer.StartObject();
    close(writer, code);
    setLength(outLength, buffer.Length());
    buffer.Put('\0');
    return code;
  }
};

}  // namespace orva
