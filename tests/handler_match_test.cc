// Which handler a path reaches: patterns that mean nothing special to PCRE are
// matched without it, and must decide exactly as PCRE's full match would.
#include <gtest/gtest.h>
#include <pcrecpp.h>

#include <string>
#include <vector>

#include "common/event_thread.h"
#include "relay/http_server.h"
#include "tests/loopback_client.h"

namespace vantu {
namespace relay {
namespace {

TEST(HandlerMatchTest, LiteralPatternsDecideAsPcreDoes) {
  const std::vector<std::string> patterns = {
      "/hello", "", "/", "/a-b_c~!&=,;'", "/a%20b", "/hello/", "hello", "/a:b@c", "/A", "/a b",
      std::string("/x\0y", 4),
      // One character special to PCRE each: these must not be taken for
      // literals.
      "/h.llo", "/hello/?", "/hel+o", "/hel*o", "/(hell)o", "/hell[o]", "/hel{2}o", "/a|/A",
      "^/hello", "/hello$", "\\/hello"};
  const std::vector<std::string> paths = {
      "/hello", "/hello/", "/helloo", "/hell",  "/",    "/A",      "/a",       "/a-b_c~!&=,;'",
      "/a%20b", "/a:b@c",  "/x",      "/h.llo", "/heo", "/helllo", "/hel{2}o", "/a|/A"};
  for (const std::string& pattern : patterns) {
    SCOPED_TRACE("pattern \"" + pattern + "\"");
    std::shared_ptr<HttpServer> server = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
    ASSERT_TRUE(server);
    server->registerHandler(pattern, [](const HttpRequestPtr&, const HttpResponsePtr& r) {
      r->status_code = HttpResponse::kNoContent;
    });
    vantu::testing::LoopbackClient client(server->localAddress().port());
    for (const std::string& path : paths) {
      SCOPED_TRACE("path " + path);
      client.write("GET " + path + " HTTP/1.1\r\nHost: h\r\n\r\n");
      const std::string answer = client.read(12);
      const bool pcre = pcrecpp::RE(pattern).FullMatch(path);
      EXPECT_EQ(pcre ? "HTTP/1.1 204" : "HTTP/1.1 404", answer);
      client.read(pcre ? 58 : 57);  // the rest of the answer
    }
    server.reset();
    waitForDeferredWork();
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
