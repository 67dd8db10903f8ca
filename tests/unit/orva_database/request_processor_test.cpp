#include "orva_database/request_processor.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "orva_host/requests.h"
#include "orva_host/served_request.h"
#include "share/request_processor.h"
#include "support/trace_capture.h"

namespace orva {
namespace {

using test::TraceCapture;

constexpr StatusCode kBadRequest = 0x80B60000;
constexpr StatusCode kNotSupported = 0x80750000;
constexpr StatusCode kDoesNotFit = 0x80080000;
constexpr StatusCode kThrown = 0x80030000;

std::string served() {
  char text[128];
  host::servedRequestText(text, sizeof text);
  return text;
}

// A processor whose one method does what the test says.
class Probe : public CRequestProcessor<Probe> {
 public:
  using Method = std::function<StatusCode(const json::Document&, ReplyWriter&)>;

  Probe() : CRequestProcessor("probe") {}

  struct Methods {
    static const std::map<std::string, int, std::less<>>& Name() {
      static const std::map<std::string, int, std::less<>> methods = {
          {"/Methods/HistoryReadRaw", 1}, {"/Methods/Other", 2}, {"", 3}};
      return methods;
    }
  };

  StatusCode CallMethod(const std::string& path, const std::string& callerInfo,
                        const json::Document& request, ReplyWriter& reply, int budget) {
    ++calls;
    pathSeen = path;
    callerInfoSeen = callerInfo;
    callerSeen = caller;
    budgetSeen = budget;
    servedSeen = served();
    return method ? method(request, reply) : 0;
  }

  const std::string& callerNow() const { return caller; }

  Method method;
  std::atomic<int> calls{0};
  std::string pathSeen;
  std::string callerInfoSeen;
  std::string callerSeen;
  std::string servedSeen;
  int budgetSeen = 0;
};

struct Answer {
  StatusCode status;
  int length;        // -5 if it was left alone
  std::string text;  // as much of the memory as was changed or belongs to the reply
};

constexpr int kUntouched = -5;
const std::string kPath = "/Methods/HistoryReadRaw";

std::string framed(const std::string& body, const std::string& address = kPath,
                   const std::string& caller = "operator") {
  return address + "\n" + caller + "\n" + body;
}

struct RequestFrameTest : testing::Test {
  ~RequestFrameTest() override {
    EXPECT_EQ(probe.callerNow(), "");
    EXPECT_EQ(served(), "");
  }

  // The request in memory of just its size, the reply into `capacity` bytes.
  Answer buffered(const std::string& request, int capacity = 4096) {
    const std::vector<char> text(request.begin(), request.end());
    memory.assign(static_cast<std::size_t>(std::max(capacity, 0)) + 8, '~');
    int length = kUntouched;
    const auto status = static_cast<StatusCode>(Probe::ProcessJSONRequest(
        &probe, 0, text.data(), static_cast<int>(text.size()), memory.data(), capacity, &length));
    return {status, length, memory.substr(0, memory.find_last_not_of('~') + 1)};
  }

  Answer streamed(const std::string& request, const std::string& head = "") {
    const std::vector<char> text(request.begin(), request.end());
    std::ostringstream out;
    out << head;
    std::ostream* const stream = &out;
    int length = kUntouched;
    const auto status = static_cast<StatusCode>(Probe::ProcessJSONRequestStream(
        &probe, 0, text.data(), static_cast<int>(text.size()), stream, 3, &length));
    return {status, length, out.str()};
  }

  Probe probe;
  std::string memory;
  TraceCapture traces;
};

std::string terminated(const std::string& text) { return text + std::string(1, '\0'); }

// ---- the frame

TEST_F(RequestFrameTest, ARequestWithoutTwoLineEndsIsRefusedAndNothingIsWritten) {
  for (const bool stream : {false, true}) {
    for (const std::string request : {"", "x", "/Methods/HistoryReadRaw"}) {
      traces.clear();
      const Answer answer = stream ? streamed(request) : buffered(request);
      EXPECT_EQ(answer.status, kBadRequest);
      EXPECT_EQ(answer.length, kUntouched);
      EXPECT_EQ(answer.text, "");
      ASSERT_EQ(traces.lines().size(), 1U);
      EXPECT_EQ(traces.lines()[0].level, 0x10U);
      EXPECT_EQ(traces.lines()[0].text,
                "<-- ReturnError: posSource == NULL evaluated to true! Returning 0x80B60000\n");
    }
    for (const std::string request : {"\n", "/Methods/HistoryReadRaw\n", "a\nb{}"}) {
      traces.clear();
      const Answer answer = stream ? streamed(request) : buffered(request);
      EXPECT_EQ(answer.status, kBadRequest);
      EXPECT_EQ(answer.length, kUntouched);
      EXPECT_EQ(answer.text, "");
      ASSERT_EQ(traces.lines().size(), 1U);
      EXPECT_EQ(traces.lines()[0].level, 0x10U);
      EXPECT_EQ(traces.lines()[0].text,
                "<-- ReturnError: pos == NULL evaluated to true! Returning 0x80B60000\n");
    }
  }
  EXPECT_EQ(probe.calls, 0);
}

TEST_F(RequestFrameTest, ANullOrNegativeRequestIsRefused) {
  int length = kUntouched;
  char out[8] = "~";
  EXPECT_EQ(
      static_cast<StatusCode>(Probe::ProcessJSONRequest(&probe, 0, nullptr, 10, out, 8, &length)),
      kBadRequest);
  EXPECT_EQ(static_cast<StatusCode>(
                Probe::ProcessJSONRequest(&probe, 0, "a\nb\n{}", -1, out, 8, &length)),
            kBadRequest);
  EXPECT_EQ(length, kUntouched);
  EXPECT_EQ(out[0], '~');
}

TEST_F(RequestFrameTest, WhatLiesBehindTheLengthIsNotRead) {
  const std::string request = framed("{}") + "garbage";
  char out[64];
  int length = kUntouched;
  EXPECT_EQ(
      Probe::ProcessJSONRequest(&probe, 0, request.data(), static_cast<int>(request.size()) - 7,
                                out, sizeof out, &length),
      0);
  EXPECT_STREQ(out, "{\"code\":0}");
}

TEST_F(RequestFrameTest, TheMethodFollowsTheFirstAtSign) {
  for (const std::string prefix : {"", "@", "station 7@", "/a/b@"}) {
    EXPECT_EQ(buffered(framed("{}", prefix + kPath)).status, 0U) << prefix;
    EXPECT_EQ(probe.pathSeen, kPath);
    EXPECT_EQ(probe.callerInfoSeen, prefix + "operator");
    EXPECT_EQ(probe.callerSeen, "operator");
    EXPECT_EQ(streamed(framed("{}", prefix + "/Methods/Other")).status, 0U) << prefix;
    EXPECT_EQ(probe.pathSeen, "/Methods/Other");
    EXPECT_EQ(probe.callerInfoSeen, prefix + "operator");
  }
  EXPECT_EQ(buffered(framed("{}", "a@b@" + kPath)).status, kNotSupported);
  EXPECT_EQ(buffered(framed("{}", "")).status, 0U) << "an empty path is looked up like any other";
}

TEST_F(RequestFrameTest, AnUnknownMethodIsNotSupportedAndNothingIsWritten) {
  for (const std::string path :
       {"/Methods/historyreadraw", "/Methods/HistoryReadRaw ", "/Methods/HistoryReadRa",
        "Methods/HistoryReadRaw", "/Methods/HistoryReadRaw\r", "x"}) {
    for (const Answer& answer : {buffered(framed("{}", path)), streamed(framed("{}", path))}) {
      EXPECT_EQ(answer.status, kNotSupported) << path;
      EXPECT_EQ(answer.length, kUntouched);
      EXPECT_EQ(answer.text, "");
    }
  }
  EXPECT_EQ(probe.calls, 0);
  EXPECT_TRUE(traces.lines().empty());
}

TEST_F(RequestFrameTest, TheHostIsToldTheTextThatIsServedByItsVeryPointer) {
  std::string request = framed("{}");
  probe.method = [&](const json::Document&, ReplyWriter&) {
    request[9] = 'X';  // the host looks at the caller's memory, not at a copy
    EXPECT_EQ(served(), "/Methods/XistoryReadRaw");
    return 0U;
  };
  char out[64];
  int length = 0;
  EXPECT_EQ(Probe::ProcessJSONRequest(&probe, 0, request.data(), static_cast<int>(request.size()),
                                      out, sizeof out, &length),
            0);
  EXPECT_EQ(probe.servedSeen, kPath);
  EXPECT_EQ(served(), "");
  probe.method = nullptr;
  streamed(framed("{}"));
  EXPECT_EQ(probe.servedSeen, kPath);
}

TEST_F(RequestFrameTest, TheBodyIsParsedIntoADocument) {
  probe.method = [](const json::Document& request, ReplyWriter& reply) {
    reply.Key("got");
    reply.String(request["a"].GetString());
    return 7U;
  };
  EXPECT_EQ(buffered(framed("{\"a\":\"line\\nend\"}")).text,
            terminated("{\"got\":\"line\\nend\",\"code\":7}"));
}

TEST_F(RequestFrameTest, LoginAndStateRequestsHaveNoBody) {
  probe.method = [](const json::Document& request, ReplyWriter&) {
    EXPECT_TRUE(request.IsNull());
    return 0U;
  };
  for (const std::string start :
       {"/Methods/GetLoginData", "/Methods/GetState", "/Methods/GetStateOfThings"}) {
    EXPECT_EQ(buffered(framed("no JSON", start + "@" + kPath)).status, 0U) << start;
    EXPECT_EQ(streamed(framed("no JSON", start + "@" + kPath)).status, 0U) << start;
  }
  EXPECT_EQ(probe.calls, 6);
  for (const std::string start :
       {"/Methods/GetLoginDat", "/Methods/GetStat", "/methods/GetState", " /Methods/GetState"}) {
    EXPECT_EQ(buffered(framed("no JSON", start + "@" + kPath)).status, kBadRequest) << start;
  }
  EXPECT_EQ(probe.calls, 6);
}

// ---- bodies that do not parse

TEST_F(RequestFrameTest, ABodyThatIsNoJsonIsAnsweredAndLoggedInOneLine) {
  for (const bool stream : {false, true}) {
    traces.clear();
    const std::string request = framed("{\"a\":nonsense}", "p@" + kPath, "the operator");
    const Answer answer = stream ? streamed(request) : buffered(request);
    EXPECT_EQ(answer.status, kBadRequest);
    EXPECT_EQ(answer.length, 19);
    EXPECT_EQ(answer.text.substr(0, 19), "{\"code\":2159411200}");
    EXPECT_EQ(traces.texts(),
              (std::vector<std::string>{
                  "Error parsing request for method /Methods/HistoryReadRaw (the operator) : "
                  "Invalid value. (pos 6 : onsense}) request=\n"}));
  }
  EXPECT_EQ(probe.calls, 0);
}

TEST_F(RequestFrameTest, TheLogQuotesTheCallersBodyBehindAnEscapedString) {
  const std::string rest = "x" + std::string(80, 'y');
  buffered(framed("{\"a\":\"\\u0041\\u0041\\n\", " + rest));
  ASSERT_EQ(traces.lines().size(), 1U);
  EXPECT_EQ(traces.lines()[0].text,
            "Error parsing request for method /Methods/HistoryReadRaw (operator) : Missing a name "
            "for object member. (pos 23 : " +
                rest.substr(0, 50) + ") request=\n");
}

TEST_F(RequestFrameTest, AnEmptyBodyIsNoJson) {
  EXPECT_EQ(buffered(framed("")).status, kBadRequest);
  EXPECT_EQ(traces.count("Error parsing request for method /Methods/HistoryReadRaw (operator) : "
                         "The document is empty. (pos 0 : ) request=\n"),
            1);
}

TEST_F(RequestFrameTest, ABodyCutAtEveryByteIsRefusedOrServed) {
  const std::string body =
      R"({"data":[{"archiveItemId":"12","x":[1,2.5e3,true,null]}],"s":"a\"\u00e4\\"})";
  for (std::size_t length = 0; length <= body.size(); ++length) {
    const bool whole = length == body.size();
    const Answer answer = buffered(framed(body.substr(0, length)));
    EXPECT_EQ(answer.status, whole ? 0U : kBadRequest) << length;
    EXPECT_EQ(answer.text, terminated(whole ? "{\"code\":0}" : "{\"code\":2159411200}"));
  }
}

TEST_F(RequestFrameTest, ANulByteInTheBodyIsNoCrash) {
  EXPECT_EQ(buffered(framed(std::string("{\"a\"\0:1}", 8))).status, kBadRequest);
}

// Runs the task on a thread whose stack is far smaller than the host's.
void onSmallStack(const std::function<void()>& task) {
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 128 * 1024), 0);
  pthread_t thread;
  ASSERT_EQ(pthread_create(
                &thread, &attributes,
                [](void* argument) -> void* {
                  (*static_cast<const std::function<void()>*>(argument))();
                  return nullptr;
                },
                const_cast<std::function<void()>*>(&task)),
            0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attributes);
}

TEST_F(RequestFrameTest, SixtyFourLevelsAreAcceptedAndMoreAreAParseError) {
  const auto nested = [](int levels, bool closed) {
    std::string body(static_cast<std::size_t>(levels), '[');
    if (closed) body.append(static_cast<std::size_t>(levels), ']');
    return framed(body);
  };
  onSmallStack([&] {
    EXPECT_EQ(buffered(nested(64, true)).status, 0U);
    EXPECT_EQ(probe.calls, 1);
    for (const int levels : {65, 1'000'000}) {
      for (const bool closed : {true, false}) {
        traces.clear();
        const Answer answer = buffered(nested(levels, closed));
        EXPECT_EQ(answer.status, kBadRequest);
        EXPECT_EQ(answer.text, terminated("{\"code\":2159411200}"));
        ASSERT_EQ(traces.lines().size(), 1U);
        EXPECT_EQ(traces.lines()[0].text.find(
                      "Error parsing request for method /Methods/HistoryReadRaw (operator) : "
                      "Nested too deep. (pos 64 : ["),
                  0U);
        EXPECT_EQ(streamed(nested(levels, closed)).status, kBadRequest);
      }
    }
    EXPECT_EQ(probe.calls, 1);
  });
}

TEST_F(RequestFrameTest, LevelsOfObjectsCountAndBracketsInTextDoNot) {
  std::string objects;
  for (int i = 0; i < 65; ++i) objects += "{\"a\":";
  EXPECT_EQ(buffered(framed(objects + "1" + std::string(65, '}'))).status, kBadRequest);
  EXPECT_EQ(buffered(framed("[\"\\\"" + std::string(100, '[') + "\"]")).status, 0U);
}

// ---- the buffer

TEST_F(RequestFrameTest, AReplyIsTerminatedAndItsLengthLeavesTheTerminatorOut) {
  const Answer answer = buffered(framed("{}"));
  EXPECT_EQ(answer.status, 0U);
  EXPECT_EQ(answer.text, terminated("{\"code\":0}"));
  EXPECT_EQ(answer.length, 10);
  EXPECT_EQ(probe.budgetSeen, 4096);
}

TEST_F(RequestFrameTest, TheStatusOfTheMethodIsItsCode) {
  probe.method = [](const json::Document&, ReplyWriter&) { return 0x805A0000U; };
  const Answer answer = buffered(framed("{}"));
  EXPECT_EQ(answer.status, 0x805A0000U);
  EXPECT_EQ(answer.text, terminated("{\"code\":2153381888}"));
  EXPECT_EQ(streamed(framed("{}")).text, "{\"code\":2153381888}");
}

TEST_F(RequestFrameTest, TheBufferIsAnEmptyTextUntilTheReplyBegins) {
  class Watch : public host::TraceHook {
   public:
    explicit Watch(const std::string& watched) : memory(watched) {}
    void onLine(const host::TraceLine&) override { first = memory[0]; }
    const std::string& memory;
    char first = '?';
  } watch(memory);
  host::setTraceHook(&watch);
  buffered(framed("no JSON"));
  EXPECT_EQ(watch.first, '\0');
  host::setTraceHook(&traces);
}

TEST_F(RequestFrameTest, EveryCapacityIsAnsweredAsFarAsItGoes) {
  probe.method = [](const json::Document&, ReplyWriter& reply) {
    reply.Key("values");
    reply.StartArray();
    for (int i = 0; i < 20; ++i) reply.Double(i + 0.5);
    reply.EndArray();
    return 5U;
  };
  const Answer whole = buffered(framed("{}"));
  ASSERT_GT(whole.length, 60);
  const std::string text = whole.text.substr(0, static_cast<std::size_t>(whole.length));
  const std::size_t members = text.size() - std::string(",\"code\":5}").size();
  const std::string fresh = "{\"code\":2148007936}";
  const std::string line =
      "<-- ReturnError: os.overflow_ evaluated to true! Returning 0x80080000\n";
  for (std::size_t capacity = 1; capacity <= text.size() + 2; ++capacity) {
    traces.clear();
    const Answer answer = buffered(framed("{}"), static_cast<int>(capacity));
    SCOPED_TRACE(capacity);
    if (capacity > text.size()) {
      EXPECT_EQ(answer.status, 5U);
      EXPECT_EQ(answer.length, whole.length);
      EXPECT_EQ(answer.text, terminated(text));
      EXPECT_TRUE(traces.lines().empty());
    } else if (capacity >= members) {
      EXPECT_EQ(answer.status, kDoesNotFit);
      EXPECT_EQ(answer.length, kUntouched);
      EXPECT_EQ(answer.text, text.substr(0, capacity));
      ASSERT_EQ(traces.texts(), std::vector<std::string>{line});
      EXPECT_EQ(traces.lines()[0].level, 0x10U);
    } else {
      EXPECT_EQ(answer.status, kDoesNotFit);
      EXPECT_EQ(answer.length, static_cast<int>(std::min(capacity, fresh.size())));
      const std::string expected = terminated(fresh).substr(0, capacity);
      EXPECT_EQ(answer.text.substr(0, expected.size()), expected);
    }
    EXPECT_EQ(memory.substr(capacity), "~~~~~~~~") << "written behind the capacity";
    EXPECT_EQ(probe.budgetSeen, static_cast<int>(capacity));
    EXPECT_EQ(probe.callerNow(), "");
    EXPECT_EQ(served(), "");
  }
}

TEST_F(RequestFrameTest, AParseErrorIsCutLikeAnyReply) {
  const Answer answer = buffered(framed("no JSON"), 19);
  EXPECT_EQ(answer.status, kDoesNotFit);
  EXPECT_EQ(answer.length, kUntouched);
  EXPECT_EQ(answer.text, "{\"code\":2159411200}");
}

TEST_F(RequestFrameTest, WithoutCapacityNothingIsWritten) {
  const std::string request = framed("{}");
  char out[2] = {'~', '~'};
  for (const auto& [memoryGiven, capacity] : std::vector<std::pair<char*, int>>{
           {out, 0}, {out, -1}, {nullptr, 0}, {nullptr, -1}, {nullptr, 100}}) {
    int length = kUntouched;
    EXPECT_EQ(static_cast<StatusCode>(Probe::ProcessJSONRequest(&probe, 0, request.data(),
                                                                static_cast<int>(request.size()),
                                                                memoryGiven, capacity, &length)),
              kDoesNotFit);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(out[0], '~');
  }
}

TEST_F(RequestFrameTest, ACallerWithoutInterestInTheLengthIsServed) {
  const std::string request = framed("{}");
  char out[64];
  EXPECT_EQ(Probe::ProcessJSONRequest(&probe, 0, request.data(), static_cast<int>(request.size()),
                                      out, sizeof out, nullptr),
            0);
  EXPECT_STREQ(out, "{\"code\":0}");
}

// ---- the stream

TEST_F(RequestFrameTest, AStreamGetsTheReplyBehindWhatItHolds) {
  probe.method = [](const json::Document&, ReplyWriter& reply) {
    reply.Key("a");
    reply.Int(1);
    return 0U;
  };
  const Answer answer = streamed(framed("{}"), "head ");
  EXPECT_EQ(answer.status, 0U);
  EXPECT_EQ(answer.text, "head {\"a\":1,\"code\":0}");
  EXPECT_EQ(answer.length, 21);
  EXPECT_EQ(probe.budgetSeen, 2147483647);
}

TEST_F(RequestFrameTest, ANullStreamIsNoCrash) {
  const std::string request = framed("{}");
  int length = kUntouched;
  EXPECT_EQ(Probe::ProcessJSONRequestStream(&probe, 0, request.data(),
                                            static_cast<int>(request.size()), nullptr, 0, &length),
            0);
  EXPECT_EQ(length, 0);
}

// ---- exceptions

TEST_F(RequestFrameTest, AnExceptionIsAnsweredAsOutOfMemory) {
  const std::vector<std::function<void()>> throwers = {
      [] { throw std::bad_alloc(); }, [] { throw std::runtime_error("x"); }, [] { throw 5; }};
  for (const auto& thrower : throwers) {
    probe.method = [&](const json::Document&, ReplyWriter& reply) {
      reply.Key("begun");
      reply.StartArray();
      for (int i = 0; i < 20; ++i) reply.Int(i);
      thrower();
      return 0U;
    };
    const Answer answer = buffered(framed("{}"));
    EXPECT_EQ(answer.status, kThrown);
    EXPECT_EQ(answer.length, 19);
    EXPECT_EQ(answer.text.substr(0, 20), terminated("{\"code\":2147680256}"));
    EXPECT_EQ(probe.callerNow(), "");
    EXPECT_EQ(served(), "");

    const Answer sent = streamed(framed("{}"));
    EXPECT_EQ(sent.status, kThrown);
    EXPECT_EQ(sent.text, "{\"begun\":[0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19");
    EXPECT_EQ(sent.length, static_cast<int>(sent.text.size()));
    EXPECT_EQ(probe.callerNow(), "");
    EXPECT_EQ(served(), "");
  }
}

TEST_F(RequestFrameTest, AnExceptionWithoutRoomForItsAnswerIsCut) {
  probe.method = [](const json::Document&, ReplyWriter&) -> StatusCode { throw 5; };
  const Answer answer = buffered(framed("{}"), 5);
  EXPECT_EQ(answer.status, kThrown);
  EXPECT_EQ(answer.text, "{\"cod");
  EXPECT_EQ(answer.length, 5);
}

// ---- several at a time

class Echo : public CRequestProcessor<Echo> {
 public:
  Echo() : CRequestProcessor("echo") {}
  using Methods = Probe::Methods;
  StatusCode CallMethod(const std::string&, const std::string& callerInfo,
                        const json::Document& request, ReplyWriter& reply, int) {
    reply.Key("who");
    reply.String(callerInfo);
    reply.Key("n");
    reply.Int(request["n"].GetInt());
    return 0;
  }
  const std::string& callerNow() const { return caller; }
};

TEST_F(RequestFrameTest, RequestsOfSeveralThreadsEachGetTheirOwnReply) {
  Echo echo;
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&echo, &wrong, t] {
      const std::string who = "a caller with quite a long name, number " + std::to_string(t);
      for (int i = 0; i < 500; ++i) {
        const std::string request = framed("{\"n\":" + std::to_string(i) + "}", kPath, who);
        char out[256];
        int length = 0;
        Echo::ProcessJSONRequest(&echo, 0, request.data(), static_cast<int>(request.size()), out,
                                 sizeof out, &length);
        if (out != "{\"who\":\"" + who + "\",\"n\":" + std::to_string(i) + ",\"code\":0}") ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(echo.callerNow(), "");
}

// ---- the history service's own processor

struct RequestProcessorTest : testing::Test {
  RequestProcessorTest() { host::forgetRequestProcessors(); }
  ~RequestProcessorTest() override {
    host::refuseRequestProcessors(REQUEST_JSON, false);
    host::refuseRequestProcessors(REQUEST_JSON_STREAM, false);
    host::forgetRequestProcessors();
  }
  RequestProcessor processor;
  TraceCapture traces;
};

TEST_F(RequestProcessorTest, KnowsItsMethodsByNumber) {
  const std::map<std::string, int, std::less<>> expected = {
      {"/Methods/GetArchiveItems", 0},     {"/Methods/HistoryReadRaw", 1},
      {"/Methods/HistoryReadRawAsync", 2}, {"/Methods/PublishHistoryData", 3},
      {"/Methods/ReadNewRecords", 4},
  };
  EXPECT_EQ(RequestProcessor::Methods::Name(), expected);
  EXPECT_EQ(&RequestProcessor::Methods::Name(), &RequestProcessor::Methods::Name());
}

TEST_F(RequestProcessorTest, InitRegistersBothHandlers) {
  EXPECT_EQ(processor.Init(), 0);
  std::string reply;
  EXPECT_EQ(host::dispatchToStream(framed("{}"), reply), 0x805A0000U);
  EXPECT_EQ(reply, "{\"code\":2153381888}");
  char out[64];
  int length = 0;
  EXPECT_EQ(host::dispatchToBuffer(framed("{}"), out, sizeof out, length), 0x805A0000U);
  EXPECT_STREQ(out, "{\"code\":2153381888}");
  EXPECT_EQ(length, 19);
}

TEST_F(RequestProcessorTest, AFailureOfTheStreamHandlerLeavesTheOtherUnregistered) {
  host::refuseRequestProcessors(REQUEST_JSON_STREAM, true);
  EXPECT_EQ(static_cast<StatusCode>(processor.Init()), 0x80750000U);
  EXPECT_EQ(traces.count("<--ReturnError: RegisterRequestProcessor(REQUEST_JSON_STREAM, "
                         "ProcessJSONRequestStream, this, NULL) returns 0x80750000\n"),
            1);
  char out[64];
  int length = 0;
  EXPECT_EQ(host::dispatchToBuffer(framed("{}"), out, sizeof out, length), kNotSupported);
}

TEST_F(RequestProcessorTest, AFailureOfTheOtherHandlerIsTracedAndLeavesTheStreamHandler) {
  host::refuseRequestProcessors(REQUEST_JSON, true);
  EXPECT_EQ(static_cast<StatusCode>(processor.Init()), 0x80750000U);
  EXPECT_EQ(traces.count("<--ReturnError: RegisterRequestProcessor(REQUEST_JSON, "
                         "ProcessJSONRequest, this, NULL) returns 0x80750000\n"),
            1);
  std::string reply;
  EXPECT_EQ(host::dispatchToStream(framed("{}"), reply), 0x805A0000U);
}

TEST_F(RequestProcessorTest, AStateRequestWithAForeignBodyReachesTheMethodWithoutOne) {
  processor.Init();
  std::string reply;
  EXPECT_EQ(
      host::dispatchToStream(framed("no JSON", "/Methods/GetState@/Methods/HistoryReadRaw"), reply),
      0x805A0000U);
  EXPECT_EQ(reply, "{\"code\":2153381888}");
  EXPECT_EQ(traces.countContaining("Error parsing"), 0);
  EXPECT_EQ(traces.count("<--Assert IsObject() failed\n"), 1);
}

TEST_F(RequestProcessorTest, APathWithoutAMethodListsTheItems) {
  char memory[256];
  FixedOutBuf buffer(memory, sizeof memory);
  ReplyWriter reply(buffer);
  json::Document body;
  body.Parse("{\"items\":[]}");
  reply.StartObject();
  EXPECT_EQ(processor.CallMethod("/Methods/Nothing", "", body, reply, 256), 0U);
  reply.EndObject();
  EXPECT_EQ(std::string(memory, static_cast<std::size_t>(buffer.Length())), "{\"items\":[]}");
}

}  // namespace
}  // namespace orva
