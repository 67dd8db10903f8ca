#include "host/request_dispatch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <stdexcept>

#include "orva_host/requests.h"
#include "orva_host/served_request.h"
#include "support/trace_capture.h"

namespace orva::host {
namespace {

// What a handler of these tests does, and what it saw.
struct Script {
  Script() = default;
  Script(StatusCode code, std::string text, bool throwing = false)
      : answer(code), reply(std::move(text)), throws(throwing) {}

  StatusCode answer = 0;
  std::string reply;
  bool throws = false;
  int calls = 0;
  std::string request;
  std::string served;
};

int streamHandler(void* context, int, const void* request, int length, void* out, int,
                  int* outLength) {
  Script& script = *static_cast<Script*>(context);
  ++script.calls;
  script.request.assign(static_cast<const char*>(request), static_cast<std::size_t>(length));
  SetFastCGIText(static_cast<const char*>(request));
  char served[32];
  servedRequestText(served, sizeof served);
  script.served = served;
  *static_cast<std::ostream*>(out) << script.reply;
  *outLength = static_cast<int>(script.reply.size());
  if (script.throws) throw std::runtime_error("no");
  return static_cast<int>(script.answer);
}

int bufferHandler(void* context, int, const void*, int, void* out, int capacity, int* outLength) {
  Script& script = *static_cast<Script*>(context);
  ++script.calls;
  if (script.answer == status::kBadNotSupported) return static_cast<int>(script.answer);
  const int length = std::min(capacity, static_cast<int>(script.reply.size()));
  std::memcpy(out, script.reply.data(), static_cast<std::size_t>(length));
  *outLength = length;
  return static_cast<int>(script.answer);
}

class RequestDispatchTest : public testing::Test {
 protected:
  RequestDispatchTest() { forgetRequestProcessors(); }
  ~RequestDispatchTest() override {
    forgetRequestProcessors();
    refuseRequestProcessors(REQUEST_JSON, false);
    refuseRequestProcessors(REQUEST_JSON_STREAM, false);
  }
};

TEST_F(RequestDispatchTest, HandlerGetsTheFramedTextAndItsReplyComesBack) {
  Script script{status::kBadWaiting, "{\"a\":1}"};
  ASSERT_EQ(RegisterRequestProcessor(REQUEST_JSON_STREAM, streamHandler, &script, nullptr), 0);
  std::string reply = "old";
  const std::string framed = frameRequest("/Methods/X", "1.2.3.4", std::string("{\0\n}", 4));
  EXPECT_EQ(dispatchToStream(framed, reply), status::kBadWaiting);
  EXPECT_EQ(reply, "{\"a\":1}");
  EXPECT_EQ(script.request, std::string("/Methods/X\n1.2.3.4\n{\0\n}", 23));
  EXPECT_EQ(script.served, "/Methods/X");
}

TEST_F(RequestDispatchTest, LineEndsInPathAndCallerBecomeBlanks) {
  EXPECT_EQ(frameRequest("/a\nb", "c\r\nd", "e\nf"), "/a b\nc  d\ne\nf");
}

TEST_F(RequestDispatchTest, RequestPassesOnUntilAHandlerSupportsIt) {
  Script first{status::kBadNotSupported, ""};
  Script second{0, "{}"};
  Script third{0, "never"};
  for (Script* script : {&first, &second, &third}) {
    ASSERT_EQ(RegisterRequestProcessor(REQUEST_JSON_STREAM, streamHandler, script, nullptr), 0);
  }
  std::string reply;
  EXPECT_EQ(dispatchToStream("p\nc\n", reply), status::kGood);
  EXPECT_EQ(reply, "{}");
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(third.calls, 0);
}

TEST_F(RequestDispatchTest, WrittenReplyIsAnAnswerEvenWithNotSupported) {
  Script first{status::kBadNotSupported, "{\"code\":2155151360}"};
  Script second{0, "{}"};
  RegisterRequestProcessor(REQUEST_JSON_STREAM, streamHandler, &first, nullptr);
  RegisterRequestProcessor(REQUEST_JSON_STREAM, streamHandler, &second, nullptr);
  std::string reply;
  EXPECT_EQ(dispatchToStream("p\nc\n", reply), status::kBadNotSupported);
  EXPECT_EQ(reply, "{\"code\":2155151360}");
  EXPECT_EQ(second.calls, 0);
}

TEST_F(RequestDispatchTest, NobodySupportsWhatNobodyRegisteredFor) {
  Script script{0, "{}"};
  RegisterRequestProcessor(REQUEST_JSON, bufferHandler, &script, nullptr);
  std::string reply = "old";
  EXPECT_EQ(dispatchToStream("p\nc\n", reply), status::kBadNotSupported);
  EXPECT_EQ(reply, "");
  EXPECT_EQ(script.calls, 0);
}

TEST_F(RequestDispatchTest, BufferHandlersWriteIntoTheCallersBuffer) {
  Script first{status::kBadNotSupported, ""};
  Script second{0, "0123456789"};
  RegisterRequestProcessor(REQUEST_JSON, bufferHandler, &first, nullptr);
  RegisterRequestProcessor(REQUEST_JSON, bufferHandler, &second, nullptr);
  char buffer[4] = {};
  int length = -1;
  EXPECT_EQ(dispatchToBuffer("p\nc\n", buffer, 4, length), status::kGood);
  EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(length)), "0123");
}

TEST_F(RequestDispatchTest, HandlerThatThrowsIsAnsweredFor) {
  test::TraceCapture trace;
  Script script{0, "{\"half\":", true};
  RegisterRequestProcessor(REQUEST_JSON_STREAM, streamHandler, &script, nullptr);
  std::string reply;
  EXPECT_EQ(dispatchToStream("p\nc\n", reply), status::kBadOutOfMemory);
  EXPECT_EQ(trace.countContaining("let an exception out"), 1);
  char served[8] = "x";
  servedRequestText(served, sizeof served);
  EXPECT_STREQ(served, "");
}

TEST_F(RequestDispatchTest, UnusableRegistrationsAreRefused) {
  Script script;
  EXPECT_LT(RegisterRequestProcessor(REQUEST_JSON, nullptr, &script, nullptr), 0);
  EXPECT_LT(RegisterRequestProcessor(2, bufferHandler, &script, nullptr), 0);
  EXPECT_LT(RegisterRequestProcessor(-1, bufferHandler, &script, nullptr), 0);
  refuseRequestProcessors(REQUEST_JSON_STREAM, true);
  EXPECT_EQ(RegisterRequestProcessor(REQUEST_JSON_STREAM, streamHandler, &script, nullptr),
            static_cast<int>(0x80750000U));
  EXPECT_EQ(RegisterRequestProcessor(REQUEST_JSON, bufferHandler, &script, nullptr), 0);
}

}  // namespace
}  // namespace orva::host
