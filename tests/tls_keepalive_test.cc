// Connections kept alive over TLS: the time limits of the handshake end with
// it, on both ends, and what goes over the wire is what plaintext carries.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "common/event_thread.h"
#include "relay/http_server.h"
#include "relay/rpc.h"
#include "test_service.h"
#include "tests/shell_output.h"
#include "tests/test_certs.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::cert;
using vantu::testing::openConnections;
using vantu::testing::pythonOutput;
using vantu::testing::serverTls;

void sayHello(const HttpRequestPtr&, const HttpResponsePtr& response) {
  const std::string text = "Hello, world!\n";
  response->content.assign(text.begin(), text.end());
}

// Python's client (over TLS checked against CA, or plaintext when CA is "-")
// asks for /hello, stays quiet for QUIET seconds, asks again, then waits for
// the server to close. Prints whether both answers came back the same,
// whether the server closed, and how long the connection lasted after the
// second request was sent, in milliseconds.
constexpr char kQuietClient[] = R"(
import socket, ssl, sys, time
port, ca, quiet = int(sys.argv[1]), sys.argv[2], float(sys.argv[3])
raw = socket.create_connection(("127.0.0.1", port))
if ca == "-":
    s = raw
else:
    s = ssl.create_default_context(cafile=ca).wrap_socket(raw, server_hostname="127.0.0.1")
s.settimeout(30)
request = b"GET /hello HTTP/1.1\r\nHost: a\r\n\r\n"
def answer():
    got = b""
    while not got.endswith(b"Hello, world!\n"):
        chunk = s.recv(4096)
        if not chunk:
            return got
        got += chunk
    return got
s.sendall(request)
first = answer()
time.sleep(quiet)
asked = time.monotonic()
s.sendall(request)
second = answer()
try:
    rest = s.recv(4096)
except (ConnectionResetError, ssl.SSLError):
    rest = b""
print(first == second and first.endswith(b"Hello, world!\n"), rest == b"",
      int((time.monotonic() - asked) * 1000))
)";

// A connection whose handshake had a time limit (header_timeout) keeps it no
// longer once the handshake is over: quiet for three times that limit, it
// still answers, and it is closed for being idle only after idle_timeout, as
// a plaintext connection is.
TEST(TlsKeepAliveTest, HandshakeLimitEndsWithTheHandshake) {
  // The handshake's limit leaves room for a loaded machine; the client is
  // quiet for three times it.
  constexpr int kIdleMs = 2500;
  for (bool tls : {true, false}) {
    SCOPED_TRACE(tls ? "TLS" : "plaintext");
    HttpServerOptions options;
    options.header_timeout = Duration::milliseconds(500);
    options.idle_timeout = Duration::milliseconds(kIdleMs);
    if (tls) options.tls = serverTls();
    std::shared_ptr<HttpServer> server =
        HttpServer::create(SocketAddress("127.0.0.1", 0), 128, options);
    ASSERT_TRUE(server);
    server->registerHandler("/hello", sayHello);
    const std::string output =
        pythonOutput(kQuietClient, std::to_string(server->localAddress().port()) + " " +
                                       (tls ? cert("ca.pem") : std::string("-")) + " 1.5");
    int lasted_ms = -1;
    char first_same[8] = {};
    char closed[8] = {};
    ASSERT_EQ(3, sscanf(output.c_str(), "%7s %7s %d", first_same, closed, &lasted_ms)) << output;
    EXPECT_STREQ("True", first_same) << output;
    EXPECT_STREQ("True", closed) << output;
    // The idle clock starts once the second request was answered, after the
    // client sent it: a lower bound that a slow machine cannot break (less
    // the few milliseconds by which an event loop's coarse clock may lag).
    EXPECT_GE(lasted_ms, kIdleMs - 20) << "closed before idle_timeout";
  }
}

// The channel's handshake has the connect timeout as its limit. A call that
// its service holds for four times that limit, with no byte crossing the
// connection meanwhile, is still answered on the same connection.
TEST(TlsKeepAliveTest, ChannelWaitsForSlowAnswersBeyondItsHandshakeLimit) {
  HttpServerOptions options;
  options.tls = serverTls();
  vantu::testing::TestServer<> server(0, options);
  ASSERT_TRUE(server.server);
  RPCChannelOptions channel_options;
  channel_options.tls.enabled = true;
  channel_options.tls.ca_file = cert("ca.pem");
  channel_options.connect_timeout = Duration::milliseconds(400);
  RPCChannelPtr channel = RPCChannel::create(server.target(), channel_options);
  ASSERT_TRUE(channel);
  for (int call = 0; call < 2; ++call) {
    SCOPED_TRACE("call " + std::to_string(call));
    RPC rpc;
    relaytest::Text request;
    request.set_text("slow " + std::to_string(call));
    relaytest::Text response;
    channel->CallMethod(vantu::testing::testMethod("Hold"), &rpc, &request, &response, nullptr);
    ASSERT_TRUE(server.service->waitHeld(static_cast<size_t>(call) + 1));
    // The service is slow: the answer comes long after the handshake's
    // limit would have run out.
    std::this_thread::sleep_for(std::chrono::milliseconds(1600));
    ASSERT_TRUE(server.service->release());
    // A guard against a hang, not a timing check.
    ASSERT_TRUE(rpc.timedWaitRelative(Duration::seconds(30)));
    EXPECT_FALSE(rpc.Failed()) << rpc.ErrorText();
    EXPECT_EQ(request.text(), response.text());
  }
  EXPECT_EQ(1u, openConnections(server.server));
}

// Python's client over memory BIOs, so that it decides where records end.
// Prints whether every answer came back and the server ended with a
// close_notify of its own.
constexpr char kRecordClient[] = R"(
import socket, ssl, sys, time
port, ca = int(sys.argv[1]), sys.argv[2]
context = ssl.create_default_context(cafile=ca)
incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
tls = context.wrap_bio(incoming, outgoing, server_hostname="127.0.0.1")
raw = socket.create_connection(("127.0.0.1", port))
raw.settimeout(30)
def pump():
    data = raw.recv(65536)
    if data:
        incoming.write(data)
    else:
        incoming.write_eof()
    return data
while True:
    try:
        tls.do_handshake()
        break
    except ssl.SSLWantReadError:
        raw.sendall(outgoing.read())
        pump()
raw.sendall(outgoing.read())
def answer():
    got = b""
    while not got.endswith(b"\n"):
        try:
            got += tls.read(65536)
        except ssl.SSLWantReadError:
            if not pump():
                return got
    return got
tls.write(b"GET /dirty HTTP/1.1\r\nHost: a\r\n\r\n")
raw.sendall(outgoing.read())
answers = [answer()]
# A new connection's handshake, with the error still queued.
other = context.wrap_socket(socket.create_connection(("127.0.0.1", port)),
                            server_hostname="127.0.0.1")
other.settimeout(30)
other.sendall(b"GET /hello HTTP/1.1\r\nHost: a\r\n\r\n")
handshaken = b""
while not handshaken.endswith(b"\n"):
    chunk = other.recv(4096)
    if not chunk:
        break
    handshaken += chunk
other.close()
tls.write(b"GET /hello HTTP/1.1\r\nHost: a\r\n\r\n")
record = outgoing.read()
raw.sendall(record[:10])
time.sleep(0.2)
raw.sendall(record[10:])
answers.append(answer())
tls.write(b"GET /dirty HTTP/1.1\r\nHost: a\r\n\r\n")
raw.sendall(outgoing.read())
answers.append(answer())
tls.write(b"GET /hello HTTP/1.1\r\nHost: a\r\n\r\n")
try:
    tls.unwrap()
except ssl.SSLWantReadError:
    pass
raw.sendall(outgoing.read())
answers.append(answer())
clean = False
while True:
    try:
        tls.unwrap()
        clean = True
        break
    except ssl.SSLWantReadError:
        if not pump():
            break
    except ssl.SSLError:
        break
print(answers[0].endswith(b"dirty\n") and answers[2].endswith(b"dirty\n"),
      answers[1].endswith(b"Hello, world!\n") and answers[3].endswith(b"Hello, world!\n")
      and handshaken.endswith(b"Hello, world!\n"), clean)
)";

// What other code on the event thread leaves in OpenSSL's error queue is not
// taken for a failure of a connection: a new connection's handshake
// succeeds, a record that arrives in pieces is waited for, and a
// close_notify after a request ends the connection cleanly, its answer sent
// first.
TEST(TlsKeepAliveTest, ErrorsLeftByOthersOnTheThreadFailNoConnection) {
  HttpServerOptions options;
  options.tls = serverTls();
  std::shared_ptr<HttpServer> server =
      HttpServer::create(SocketAddress("127.0.0.1", 0), 128, options);
  ASSERT_TRUE(server);
  std::atomic<bool> left{false};
  server->registerHandler(
      "/dirty", [&left](const HttpRequestPtr&, const HttpResponsePtr& response) {
        // Someone else's failure, its error left queued. (Through dlsym: the
        // library brings libcrypto, the test does not link it itself.)
        auto error_new = reinterpret_cast<void (*)()>(dlsym(RTLD_DEFAULT, "ERR_new"));
        auto error_set = reinterpret_cast<void (*)(int, int, const char*, ...)>(
            dlsym(RTLD_DEFAULT, "ERR_set_error"));
        auto peek = reinterpret_cast<unsigned long (*)()>(dlsym(RTLD_DEFAULT, "ERR_peek_error"));
        if (error_new != nullptr && error_set != nullptr && peek != nullptr) {
          error_new();
          error_set(ERR_LIB_EVP, 1, nullptr);
          left = peek() != 0;
        }
        const std::string text = "dirty\n";
        response->content.assign(text.begin(), text.end());
      });
  server->registerHandler("/hello", sayHello);
  EXPECT_EQ("True True True\n",
            pythonOutput(kRecordClient,
                         std::to_string(server->localAddress().port()) + " " + cert("ca.pem")));
  EXPECT_TRUE(left) << "the handler left no error behind";
}

}  // namespace
}  // namespace relay
}  // namespace vantu
