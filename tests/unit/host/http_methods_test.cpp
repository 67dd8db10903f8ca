#include "orva_host/http_methods.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ostream>

#include "host/request_dispatch.h"
#include "orva_host/requests.h"
#include "orva_host/variables.h"

namespace orva::host {
namespace {

struct Method {
  StatusCode answer = 0;
  std::string reply;
  std::string request;
};

int streamMethod(void* context, int, const void* request, int length, void* out, int,
                 int* outLength) {
  Method& method = *static_cast<Method*>(context);
  method.request.assign(static_cast<const char*>(request), static_cast<std::size_t>(length));
  *static_cast<std::ostream*>(out) << method.reply;
  *outLength = static_cast<int>(method.reply.size());
  return static_cast<int>(method.answer);
}

// Says how much room it got.
int bufferMethod(void*, int, const void*, int, void* out, int capacity, int* outLength) {
  const std::string reply = "{\"room\":" + std::to_string(capacity) + "}";
  *outLength = std::min(capacity, static_cast<int>(reply.size()));
  std::memcpy(out, reply.data(), static_cast<std::size_t>(*outLength));
  return 0;
}

class HttpMethodsTest : public testing::Test {
 protected:
  HttpMethodsTest() {
    forgetRequestProcessors();
    RegisterRequestProcessor(REQUEST_JSON_STREAM, streamMethod, &method_, nullptr);
    RegisterRequestProcessor(REQUEST_JSON, bufferMethod, nullptr, nullptr);
  }
  ~HttpMethodsTest() override { forgetRequestProcessors(); }

  static HttpReply post(const std::string& body,
                        const std::map<std::string, std::string>& headers = {}) {
    HttpRequest request;
    request.method = "POST";
    request.path = "/Methods/HistoryReadRaw";
    request.headers = headers;
    request.body = body;
    request.caller = "127.0.0.1:5";
    return methodsRoute().handler(request);
  }

  Method method_;
};

TEST_F(HttpMethodsTest, BodyIsFramedAndTheReplyHandedOn) {
  method_.reply = "{\"data\":[],\"code\":0}";
  const HttpReply reply = post("{\"data\":[]}");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.contentType, "application/json");
  EXPECT_EQ(reply.body, method_.reply);
  EXPECT_EQ(method_.request, "/Methods/HistoryReadRaw\n127.0.0.1:5\n{\"data\":[]}");
}

TEST_F(HttpMethodsTest, MethodThatServedIsFineWhateverItsCode) {
  method_.answer = status::kBadInvalidArgument;
  method_.reply = "{\"code\":2153381888}";
  EXPECT_EQ(post("{}").status, 200);
  EXPECT_EQ(post("{}").body, method_.reply);
}

TEST_F(HttpMethodsTest, UnknownMethodIsNotFound) {
  method_.answer = status::kBadNotSupported;
  const HttpReply reply = post("{}");
  EXPECT_EQ(reply.status, 404);
  EXPECT_EQ(reply.body, "{\"code\":2155151360,\"error\":\"there is no such method\"}");
}

TEST_F(HttpMethodsTest, RefusalWithoutReplyTellsItsCode) {
  method_.answer = status::kBadRequest;
  const HttpReply reply = post("{}");
  EXPECT_EQ(reply.status, 400);
  EXPECT_EQ(reply.body, "{\"code\":2159411200,\"error\":\"the method wrote no reply\"}");
}

TEST_F(HttpMethodsTest, HeaderAsksForAReplyThatFitsABuffer) {
  EXPECT_EQ(post("{}", {{"x-orva-buffer", "100"}}).body, "{\"room\":100}");
  EXPECT_EQ(post("{}", {{"x-orva-buffer", "3"}}).body, "{\"r");
  EXPECT_EQ(post("{}", {{"x-orva-buffer", "0"}}).status, 200);
  for (const char* wrong : {"-1", "16777217", "x", "", "1.5"}) {
    EXPECT_EQ(post("{}", {{"x-orva-buffer", wrong}}).status, 400) << wrong;
  }
}

TEST(HttpItemsTest, ConfiguredVariablesAreListed) {
  replaceInstallation({{{2, "Plant/\"On\"", OpcUaType_Boolean}, {}},
                       {{-1, "Plant/Load", OpcUaType_Double}, {{0, {1, -5}}, {2, {0, 0}}}}},
                      {});
  EXPECT_EQ(itemsRoute().handler({}).body,
            R"({"items":[{"id":-1,"path":"Plant/Load","type":"Double","layers":)"
            R"({"0":{"archive":1,"parameter":-5},"2":{"archive":0,"parameter":0}}},)"
            R"({"id":2,"path":"Plant/\"On\"","type":"Boolean","layers":{}}]})");
  clearInstallation();
  EXPECT_EQ(itemsRoute().handler({}).body, "{\"items\":[]}");
}

}  // namespace
}  // namespace orva::host
