// The console's page as the server sends it: complete (no placeholder left,
// nothing fetched from elsewhere), with the ids automation relies on, and
// with the application's text escaped wherever it lands.
#include "relay/console.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "relay/http_server.h"
#include "tests/loopback_client.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::LoopbackClient;

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

TEST(ConsoleTest, ServesOneSelfContainedPageAtItsPath) {
  std::shared_ptr<HttpServer> server = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
  ASSERT_TRUE(server);
  registerConsole(server, "/console");
  const std::string page = consolePage(ConsoleOptions());
  LoopbackClient client(server->localAddress().port());
  client.write("GET /console HTTP/1.1\r\nHost: x\r\n\r\n");
  const std::string head =
      "HTTP/1.1 200 OK\r\nCache-Control: no-cache\r\nConnection: keep-alive\r\n"
      "Content-Length: " +
      std::to_string(page.size()) + "\r\nContent-Type: text/html; charset=utf-8\r\n\r\n";
  EXPECT_EQ(head + page, client.read(head.size() + page.size()));
  // Only that path: "/consoleX" is not it.
  client.write("GET /consoleX HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_EQ("HTTP/1.1 404", client.read(12));

  // Every placeholder filled; styles, script and icon inside; nothing from elsewhere.
  for (const char* absent : {"@CSS@", "@JS@", "@TITLE@", "@LINKS@", "@METRICS_PATH@",
                             "src=", "https://", "@import", " url(", ":url("}) {
    EXPECT_EQ(std::string::npos, page.find(absent)) << absent;
  }
  for (const char* present :
       {"rel=\"icon\" href=\"data:image/svg+xml,", "function callJson(", "#figures {"}) {
    EXPECT_NE(std::string::npos, page.find(present)) << present;
  }
  // The one absolute URL is the icon's SVG namespace, a name, not a fetch.
  EXPECT_EQ(count(page, "http://www.w3.org/2000/svg"), count(page, "http://"));
  for (const char* id : {"services", "method", "request", "call", "reply"}) {
    EXPECT_EQ(1u, count(page, std::string("id=\"") + id + "\"")) << id;
  }
  EXPECT_EQ(2u, count(page, "relay console"));  // the title and the heading
  EXPECT_NE(std::string::npos, page.find("data-metrics=\"/metrics\""));
  EXPECT_EQ(std::string::npos, page.find("id=\"links\""));  // no links given
}

TEST(ConsoleTest, TheApplicationsTextIsEscapedWhereverItLands) {
  ConsoleOptions options;
  options.title = "<b>&'\"@LINKS@";
  options.metrics_path = "/m\"><script>";
  options.links = {{"/a?x=1&y=\"2\"", "<a>", "it's"}, {"/b", "b", ""}};
  const std::string page = consolePage(options);
  const std::string title = "&lt;b&gt;&amp;&#39;&quot;&#64;LINKS&#64;";
  EXPECT_EQ(2u, count(page, title));
  EXPECT_NE(std::string::npos, page.find("data-metrics=\"/m&quot;&gt;&lt;script&gt;\""));
  EXPECT_NE(std::string::npos,
            page.find("<li><a href=\"/a?x=1&amp;y=&quot;2&quot;\">&lt;a&gt;</a> <span "
                      "class=\"note\">it&#39;s</span></li>"));
  EXPECT_NE(std::string::npos, page.find("<li><a href=\"/b\">b</a></li>"));
  EXPECT_EQ(1u, count(page, "id=\"links\""));
  EXPECT_EQ(std::string::npos, page.find("<script>\""));
  // The application's text put no extra script or element into the page.
  EXPECT_EQ(1u, count(page, "<script>"));
  EXPECT_EQ(0u, count(page, "<b>"));

  ConsoleOptions no_figures;
  no_figures.metrics_path.clear();
  EXPECT_NE(std::string::npos, consolePage(no_figures).find("data-metrics=\"\""));
}

}  // namespace
}  // namespace relay
}  // namespace vantu
