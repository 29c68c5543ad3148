#include "relay/console.h"

#include <cstddef>

namespace vantu {
namespace relay {

// relay/console/ made into bytes at build time (cmake/embed_console.cmake).
extern const unsigned char kConsolePage[];
extern const size_t kConsolePageSize;

namespace {

// Text as it may stand in HTML content or in a quoted attribute; '@' too, so
// that no text put in the page reads as one of its placeholders.
std::string escapeHtml(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      case '@':
        out += "&#64;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

void replaceAll(std::string* text, const std::string& from, const std::string& to) {
  for (size_t at = text->find(from); at != std::string::npos;
       at = text->find(from, at + to.size())) {
    text->replace(at, from.size(), to);
  }
}

std::string linksHtml(const std::vector<ConsoleLink>& links) {
  if (links.empty()) return std::string();
  std::string html = "<div class=\"links\">\n      <h2>Endpoints</h2>\n      <ul id=\"links\">\n";
  for (const ConsoleLink& link : links) {
    html +=
        "        <li><a href=\"" + escapeHtml(link.href) + "\">" + escapeHtml(link.text) + "</a>";
    if (!link.description.empty()) {
      html += " <span class=\"note\">" + escapeHtml(link.description) + "</span>";
    }
    html += "</li>\n";
  }
  return html + "      </ul>\n    </div>";
}

}  // namespace

std::string consolePage(const ConsoleOptions& options) {
  std::string page(reinterpret_cast<const char*>(kConsolePage), kConsolePageSize);
  replaceAll(&page, "@LINKS@", linksHtml(options.links));
  replaceAll(&page, "@TITLE@", escapeHtml(options.title));
  replaceAll(&page, "@METRICS_PATH@", escapeHtml(options.metrics_path));
  replaceAll(&page, "@EVENTS_PATH@", escapeHtml(options.events_path));
  return page;
}

void registerConsole(const std::shared_ptr<HttpServer>& server, const std::string& path,
                     const ConsoleOptions& options) {
  auto page = std::make_shared<const std::string>(consolePage(options));
  server->registerHandler(
      HttpServer::literalPattern(path),
      [page](const HttpRequestPtr& /*request*/, const HttpResponsePtr& response) {
        response->setContentType("text/html; charset=utf-8");
        response->setHeader("Cache-Control", "no-cache");
        response->content.assign(page->begin(), page->end());
      });
}

}  // namespace relay
}  // namespace vantu
