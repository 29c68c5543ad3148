#include "relay/server_sent_events.h"

#include <memory>

namespace vantu {
namespace relay {
namespace {

// A field whose value must stay on one line.
void appendField(const char* name, const std::string& value, std::string* out) {
  out->append(name);
  for (char c : value) out->push_back(c == '\r' || c == '\n' ? ' ' : c);
  out->push_back('\n');
}

}  // namespace

std::string formatServerSentEvent(const std::string& data, const std::string& event,
                                  const std::string& id) {
  std::string out;
  out.reserve(data.size() + event.size() + id.size() + 24);
  if (!event.empty()) appendField("event: ", event, &out);
  if (!id.empty()) appendField("id: ", id, &out);
  // Every line of the data its own "data:" line; CR LF, CR and LF all end a
  // line, as the client reads them.
  size_t start = 0;
  for (;;) {
    size_t end = data.find_first_of("\r\n", start);
    out.append("data: ");
    out.append(data, start, end == std::string::npos ? std::string::npos : end - start);
    out.push_back('\n');
    if (end == std::string::npos) break;
    start = end + 1;
    if (data[end] == '\r' && start < data.size() && data[start] == '\n') ++start;
  }
  out.push_back('\n');
  return out;
}

void ServerSentEvents::start() {
  auto response = std::make_shared<HttpResponse>();
  response->setContentType("text/event-stream");
  response->setHeader("Cache-Control", "no-cache");
  stream_->start(response);
}

bool ServerSentEvents::send(const std::string& data, const std::string& event,
                            const std::string& id) {
  return stream_->write(formatServerSentEvent(data, event, id));
}

bool ServerSentEvents::heartbeat(const std::string& comment) {
  std::string line = ":";
  for (char c : comment) line.push_back(c == '\r' || c == '\n' ? ' ' : c);
  line.append("\n\n");
  return stream_->write(line);
}

bool ServerSentEvents::retry(int milliseconds) {
  return stream_->write("retry: " + std::to_string(milliseconds) + "\n\n");
}

}  // namespace relay
}  // namespace vantu
