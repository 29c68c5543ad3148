#ifndef RELAY_SERVER_SENT_EVENTS_H_
#define RELAY_SERVER_SENT_EVENTS_H_

#include <string>

#include "relay/http_stream.h"

namespace vantu {
namespace relay {

// Server-Sent Events (the text/event-stream format a browser's EventSource
// reads) over an HttpStream: one event is an optional "event:" line, an
// optional "id:" line and one "data:" line per line of its data, ended by a
// blank line.
//
// A thin value over the stream it is given; it keeps nothing else. Any
// thread, as the stream.
class ServerSentEvents {
 public:
  explicit ServerSentEvents(HttpStreamPtr stream) : stream_(std::move(stream)) {}

  // Starts the stream: status 200, "Content-Type: text/event-stream",
  // "Cache-Control: no-cache".
  void start();
  // Sends one event; false once nothing more will be sent (see
  // HttpStream::write). Data with line breaks (LF, CR LF or CR) becomes
  // several "data:" lines, which the client joins with LF again.
  bool send(const std::string& data, const std::string& event = std::string(),
            const std::string& id = std::string());
  // A comment line, ignored by the client: a heartbeat that keeps proxies
  // from closing a quiet stream, and shows the server when the client left.
  bool heartbeat(const std::string& comment = std::string());
  // Tells the client how long to wait before it reconnects.
  bool retry(int milliseconds);

  const HttpStreamPtr& stream() const { return stream_; }

 private:
  HttpStreamPtr stream_;
};

// One event as its bytes. Line breaks in `event` and `id` would end their
// line early: they become blanks.
std::string formatServerSentEvent(const std::string& data, const std::string& event = std::string(),
                                  const std::string& id = std::string());

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_SERVER_SENT_EVENTS_H_
