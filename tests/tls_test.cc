// TLS end to end over loopback: our server against clients nobody here wrote
// (curl, Python's ssl module, openssl s_client) and against our own channel,
// with certificates made for the run by scripts/make-test-certs.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "common/event_thread.h"
#include "common/logging.h"
#include "loopback_client.h"
#include "relay/http_server.h"
#include "relay/message_pool.h"
#include "relay/peer_info.h"
#include "relay/rpc.h"
#include "test_service.h"
#include "test_services.pb.h"
#include "tests/log_capture.h"
#include "tests/shell_output.h"
#include "tests/test_certs.h"
#include "tests/waiting.h"

// Whether this build checks for leaks at exit (AddressSanitizer's leak
// checker): only such a build can see a leak as a failure.
#if defined(__SANITIZE_ADDRESS__)
#define HSL_LEAKS_CHECKED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HSL_LEAKS_CHECKED 1
#endif
#endif

namespace vantu {
namespace relay {
namespace {

using vantu::testing::cert;
using vantu::testing::curlTls;
using vantu::testing::LoopbackClient;
using vantu::testing::openConnections;
using vantu::testing::pythonOutput;
using vantu::testing::serverTls;
using vantu::testing::shellOutput;

std::string join(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : ",") + part;
  return text;
}

// What a handler or a service sees of its caller, as one line.
std::string describe(const PeerInfo& peer) {
  return std::string("tls=") + (peer.tls ? "1" : "0") + " version=" + peer.tls_version +
         " subject=" + peer.client_subject + " sans=" + join(peer.client_sans) +
         " address=" + (peer.address.isValid() ? "yes" : "no");
}

class WhoService : public relaytest::TestService {
 public:
  void Echo(google::protobuf::RpcController* controller, const relaytest::Text*,
            relaytest::Text* response, google::protobuf::Closure* done) override {
    response->set_text(describe(static_cast<RPC*>(controller)->peer()));
    done->Run();
  }
};

void setContent(HttpResponse* response, const std::string& text) {
  response->content.assign(text.begin(), text.end());
}

std::shared_ptr<HttpServer> startServer(HttpServerOptions options) {
  std::shared_ptr<HttpServer> server =
      HttpServer::create(SocketAddress("127.0.0.1", 0), 128, options);
  if (!server) return server;
  server->registerHandler("/hello", [](const HttpRequestPtr&, const HttpResponsePtr& response) {
    setContent(response.get(), "Hello, world!\n");
  });
  server->registerHandler("/who",
                          [](const HttpRequestPtr& request, const HttpResponsePtr& response) {
                            setContent(response.get(), describe(request->peer()));
                          });
  server->registerHandler("/url",
                          [](const HttpRequestPtr& request, const HttpResponsePtr& response) {
                            setContent(response.get(), request->url.spec());
                          });
  server->registerRPCService(std::make_shared<WhoService>());
  return server;
}

std::string url(const std::shared_ptr<HttpServer>& server, const std::string& path) {
  return "https://127.0.0.1:" + std::to_string(server->localAddress().port()) + path;
}

// One call of Echo on `channel`; "ok: TEXT" or "failed: ERROR".
std::string callEcho(RPCChannel* channel) {
  RPC rpc;
  relaytest::Text request;
  relaytest::Text response;
  channel->CallMethod(relaytest::TestService::descriptor()->FindMethodByName("Echo"), &rpc,
                      &request, &response, nullptr);
  // A guard against a hang, not a timing check.
  if (!rpc.timedWaitRelative(Duration::seconds(30))) return "hung";
  return rpc.Failed() ? "failed: " + rpc.ErrorText() : "ok: " + response.text();
}

RPCChannelOptions channelTls(const std::string& ca, bool client_cert) {
  RPCChannelOptions options;
  options.tls.enabled = true;
  options.tls.ca_file = cert(ca);
  if (client_cert) {
    options.tls.certificate_chain_file = cert("client.pem");
    options.tls.private_key_file = cert("client-key.pem");
  }
  return options;
}

bool waitNoConnections(const std::shared_ptr<HttpServer>& server) {
  return vantu::testing::eventually([&] { return openConnections(server) == 0; });
}

// Over TLS a request's url says "https://", whichever reader the server uses;
// the Host still names the authority, and an absolute target stays as sent.
TEST(TlsTest, ClientsNobodyHereWroteGetAnswersOverTls) {
  for (bool strict : {true, false}) {
    SCOPED_TRACE(strict ? "strict reader" : "default reader");
    HttpServerOptions options;
    options.tls = serverTls("server", false);
    // So that "Connection: close" ends s_client's session.
    options.strict_framing = strict;
    std::shared_ptr<HttpServer> server = startServer(options);
    ASSERT_TRUE(server);
    const std::string port = std::to_string(server->localAddress().port());
    const std::string by_name = "https://localhost:" + port;
    const std::pair<std::string, std::string> cases[] = {
        {by_name + "/who", "tls=1 version=TLSv1.3 subject= sans= address=yes"},
        {"--tls-max 1.2 " + url(server, "/who"),
         "tls=1 version=TLSv1.2 subject= sans= address=yes"},
        {url(server, "/url?a=1"), "https://127.0.0.1:" + port + "/url?a=1"},
        {by_name + "/url", by_name + "/url"},
        {"--request-target http://elsewhere.test/url " + url(server, "/x"),
         "http://elsewhere.test/url"},
    };
    for (const auto& test : cases) {
      SCOPED_TRACE(test.first);
      int status = -1;
      EXPECT_EQ(test.second, curlTls(test.first, &status));
      EXPECT_EQ(0, status);
    }
    if (!strict) continue;
    int status = -1;
    EXPECT_EQ("Hello, world!\n",
              shellOutput(
                  "printf 'GET /hello HTTP/1.1\\r\\nHost: a\\r\\nConnection: close\\r\\n\\r\\n' | "
                  "timeout 30 openssl s_client -quiet -verify_return_error -CAfile " +
                      cert("ca.pem") + " -connect 127.0.0.1:" + port + " 2>/dev/null | tail -n 1",
                  &status));
    EXPECT_EQ(0, status);
  }
}

TEST(TlsTest, OldProtocolsAreRefusedSessionsResumeAndStreamsEndCleanly) {
  HttpServerOptions options;
  options.tls = serverTls("server", false);
  options.strict_framing = true;
  std::shared_ptr<HttpServer> server = startServer(options);
  ASSERT_TRUE(server);
  // Resumption checked over TLS 1.2, where the session is known once the
  // handshake ends (a TLS 1.3 ticket arrives after it).
  EXPECT_EQ("TLSv1.2 False True\nTLS 1.1 refused\nclean end\n",
            pythonOutput(R"(
import socket, ssl, sys
port, ca = int(sys.argv[1]), sys.argv[2]
def get(context, session=None):
    with socket.create_connection(("127.0.0.1", port), timeout=30) as raw:
        with context.wrap_socket(raw, server_hostname="127.0.0.1", session=session) as tls:
            tls.sendall(b"GET /who HTTP/1.1\r\nHost: a\r\n\r\n")
            answer = b""
            while not answer.endswith(b"address=yes"):
                answer += tls.recv(4096)
            return tls.session, tls.session_reused, tls.version()
context = ssl.create_default_context(cafile=ca)
context.maximum_version = ssl.TLSVersion.TLSv1_2
session, reused, version = get(context)
again, reused_again, _ = get(context, session)
print(version, reused, reused_again)
old = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
old.load_verify_locations(ca)
old.minimum_version = ssl.TLSVersion.TLSv1
old.maximum_version = ssl.TLSVersion.TLSv1_1
try:
    get(old)
    print("TLS 1.1 accepted")
except (ssl.SSLError, OSError):
    print("TLS 1.1 refused")
# After "Connection: close" the server ends the TLS stream with close_notify:
# an orderly end, which a client tells from a cut connection.
with socket.create_connection(("127.0.0.1", port), timeout=30) as raw:
    with context.wrap_socket(raw, server_hostname="127.0.0.1", suppress_ragged_eofs=False) as tls:
        tls.sendall(b"GET /hello HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n")
        answer = b""
        try:
            while True:
                chunk = tls.recv(4096)
                if not chunk:
                    break
                answer += chunk
            print("clean end" if answer.endswith(b"Hello, world!\n") else "no answer")
        except ssl.SSLEOFError:
            print("cut")
)",
                         std::to_string(server->localAddress().port()) + " " + cert("ca.pem")));
}

TEST(TlsTest, ChannelSucceedsOrFailsSayingWhy) {
  struct Case {
    const char* name;
    const char* server_cert;
    bool server_wants_client_cert;
    const char* client_ca;
    bool client_cert;
    std::string expected;  // the outcome, or the start of a failure
  } cases[] = {
      {"plain TLS", "server", false, "ca.pem", false,
       "ok: tls=1 version=TLSv1.3 subject= sans= address=yes"},
      {"mutual TLS", "server", true, "ca.pem", true,
       "ok: tls=1 version=TLSv1.3 subject=CN=test-client,O=relay tests "
       "sans=URI:spiffe://test/client,DNS:client.test address=yes"},
      {"wrong CA", "server", false, "other-ca.pem", false,
       "failed: 127.0.0.1:PORT: TLS handshake failed: certificate verify failed: unable to get "
       "local issuer certificate"},
      {"wrong name", "wrong-name", false, "ca.pem", false,
       "failed: 127.0.0.1:PORT: TLS handshake failed: certificate verify failed: IP address "
       "mismatch"},
      {"no client certificate", "server", true, "ca.pem", false,
       "failed: 127.0.0.1:PORT: TLS read failed: tlsv13 alert certificate required"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    HttpServerOptions options;
    options.tls = serverTls(test.server_cert, test.server_wants_client_cert);
    std::shared_ptr<HttpServer> server = startServer(options);
    ASSERT_TRUE(server);
    const std::string port = std::to_string(server->localAddress().port());
    RPCChannelPtr channel =
        RPCChannel::create("127.0.0.1:" + port, channelTls(test.client_ca, test.client_cert));
    ASSERT_TRUE(channel);
    std::string expected = test.expected;
    const size_t at = expected.find("PORT");
    if (at != std::string::npos) expected.replace(at, 4, port);
    EXPECT_EQ(expected, callEcho(channel.get()));
  }
}

TEST(TlsTest, PlaintextAndStalledClientsAreClosedNotLeaked) {
  HttpServerOptions options;
  options.tls = serverTls("server", false);
  options.header_timeout = Duration::milliseconds(300);
  std::shared_ptr<HttpServer> server = startServer(options);
  ASSERT_TRUE(server);
  const uint16_t port = server->localAddress().port();
  struct Case {
    const char* name;
    std::string bytes;
  } cases[] = {
      {"plaintext request", "GET /hello HTTP/1.1\r\nHost: a\r\n\r\n"},
      {"nothing at all", ""},
      // A ClientHello's record header announcing more than ever comes.
      {"half a handshake", std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11)},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    LoopbackClient client(port);
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(client.write(test.bytes));
    const std::string answer = client.readToEnd();
    EXPECT_TRUE(client.peerClosed() || client.lastError() == ECONNRESET);
    EXPECT_EQ(std::string::npos, answer.find("Hello")) << "served in clear";
  }
  EXPECT_TRUE(waitNoConnections(server));
  EXPECT_EQ("Hello, world!\n", curlTls(url(server, "/hello")));
}

TEST(TlsTest, ReloadServesNewFilesToNewConnectionsOnlyAndUnusableFilesAreRefused) {
  const std::string chain = vantu::testing::testCertDir() + "/reload.pem";
  const std::string key = vantu::testing::testCertDir() + "/reload-key.pem";
  ASSERT_TRUE(vantu::testing::installCert("server", chain, key));
  HttpServerOptions options;
  options.tls.certificate_chain_file = chain;
  options.tls.private_key_file = key;
  std::shared_ptr<HttpServer> server = startServer(options);
  ASSERT_TRUE(server);
  const std::string port = std::to_string(server->localAddress().port());
  RPCChannelPtr channel = RPCChannel::create("127.0.0.1:" + port, channelTls("ca.pem", false));
  ASSERT_EQ("ok: tls=1 version=TLSv1.3 subject= sans= address=yes", callEcho(channel.get()));

  vantu::testing::LogCapture log("http_server", 2);
  const std::string as_wrong_name =
      "--resolve wrong.example:" + port + ":127.0.0.1 https://wrong.example:" + port + "/hello";
  ASSERT_TRUE(vantu::testing::installCert("wrong-name", chain, key));
  EXPECT_TRUE(server->reloadTlsCertificates());
  int status = -1;
  EXPECT_EQ("Hello, world!\n", curlTls(as_wrong_name, &status));
  curlTls(url(server, "/hello") + " 2>/dev/null", &status);
  EXPECT_NE(0, status) << "a new connection still got the old certificate";
  // The connection made before the reload keeps its session.
  EXPECT_EQ("ok: tls=1 version=TLSv1.3 subject= sans= address=yes", callEcho(channel.get()));

  std::ofstream(chain) << "not a certificate\n";
  EXPECT_FALSE(server->reloadTlsCertificates());
  EXPECT_EQ("Hello, world!\n", curlTls(as_wrong_name)) << "the old files were dropped";
  bool logged = false;
  for (const LogRecord& record : log.take()) {
    logged = logged || (record.level == 2 && record.text.find(chain) != std::string::npos);
  }
  EXPECT_TRUE(logged) << "the refused reload was not logged at level 2";
  // Unusable files at the start make no server at all.
  for (const char* key : {"missing-key.pem", "client-key.pem"}) {
    SCOPED_TRACE(key);
    HttpServerOptions options;
    options.tls.certificate_chain_file = cert("server.pem");
    options.tls.private_key_file = cert(key);
    EXPECT_FALSE(HttpServer::create(SocketAddress("127.0.0.1", 0), 16, options));
  }
}

// A reader that takes its answers slowly while its requests keep coming: the
// server reads more only as its output (plain and encrypted) drains, so the
// answers it has made but the client has not read stay bounded, and each
// arrives whole. Each read of the socket brings dozens of requests at once,
// more answer bytes than the kernel frees between two write wake-ups, so a
// server that resumed reading on its plain output alone would run ever
// further ahead of the reader.
TEST(TlsTest, SlowReaderWithRequestsQueuedKeepsTheServerBoundedAhead) {
  HttpServerOptions options;
  options.tls = serverTls("server", false);
  std::shared_ptr<HttpServer> server = startServer(options);
  ASSERT_TRUE(server);
  constexpr size_t kAnswerSize = 256 * 1024;
  std::atomic<size_t> answered{0};
  server->registerHandler("/counted",
                          [&answered](const HttpRequestPtr&, const HttpResponsePtr& response) {
                            answered.fetch_add(1);
                            response->content.assign(kAnswerSize, 'c');
                          });
  const size_t read_limit = size_t{64} * 1024 * 1024;
  const std::string output =
      pythonOutput(R"(
import os, socket, ssl, sys, threading
port, ca, total, read_limit = int(sys.argv[1]), sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
context = ssl.create_default_context(cafile=ca)
raw = socket.socket()
raw.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
raw.connect(("127.0.0.1", port))
tls = context.wrap_socket(raw, server_hostname="127.0.0.1")
request = b"GET /counted HTTP/1.1\r\nHost: a\r\nX-Pad: " + b"p" * 2000 + b"\r\n\r\n"
def send():
    try:
        tls.sendall(request * total)
    except OSError:
        pass
threading.Thread(target=send, daemon=True).start()
data = bytearray()
while len(data) < read_limit:
    chunk = tls.recv(65536)
    if not chunk:
        break
    data += chunk
# Every answer is the same: what was read is the first one over and over.
one = data[:data.find(b"\r\n\r\n") + 4 + (256 << 10)]
print(len(data), data == (one * (len(data) // len(one) + 1))[:len(data)], flush=True)
os._exit(0)
)",
                   std::to_string(server->localAddress().port()) + " " + cert("ca.pem") + " 2000 " +
                       std::to_string(read_limit));
  const size_t read = std::strtoull(output.c_str(), nullptr, 10);
  ASSERT_GE(read, read_limit) << "the reader did not get its bytes";
  EXPECT_NE(std::string::npos, output.find(" True\n")) << "answers lost or cut: " << output;
  ASSERT_TRUE(waitNoConnections(server));
  // Ahead of the reader: the output bound (1 MiB), the answers to one read
  // of requests (32 of them, 8 MiB), the kernel's buffers, and a read or two
  // more while the reader stops and goes; far less than a run-away server.
  const size_t made = answered.load() * kAnswerSize;
  EXPECT_LE(made - std::min(made, read), size_t{32} * 1024 * 1024)
      << answered.load() << " answers made";
}

size_t countOf(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// The caller a request names stays right for as long as the request lives,
// also once its connection closed: over plaintext (both readers, which copy
// the address into each request rather than share it) and over TLS, for
// every request of a connection, not only its first, and for RPCs.
TEST(TlsTest, PeerIsRightOverPlaintextAndTlsAfterTheConnectionClosed) {
  struct Case {
    const char* name;
    bool tls;
    bool strict;
  } cases[] = {
      // TLS first: when a process's first TLS connection comes after
      // plaintext servers have run, LeakSanitizer reports the event thread's
      // OpenSSL state (about 10 KB, the same for 3 connections or 12) as lost
      // at exit, an artifact of the order OpenSSL and the thread are shut
      // down in, not a loss per connection.
      {"TLS", true, false},
      {"plaintext, default reader", false, false},
      {"plaintext, strict reader", false, true},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    HttpServerOptions options;
    if (test.tls) options.tls = serverTls("server", false);
    options.strict_framing = test.strict;
    std::shared_ptr<HttpServer> server = startServer(options);
    ASSERT_TRUE(server);
    // Handlers run on the event thread; the test reads the list once the
    // connection is gone.
    auto kept = std::make_shared<std::vector<HttpRequestPtr>>();
    server->registerHandler("/keep",
                            [kept](const HttpRequestPtr& request, const HttpResponsePtr& response) {
                              kept->push_back(request);
                              setContent(response.get(), "kept\n");
                            });
    const uint16_t port = server->localAddress().port();
    uint16_t client_port = 0;
    if (test.tls) {
      EXPECT_EQ("kept\nkept\n", curlTls(url(server, "/keep") + " " + url(server, "/keep")));
    } else {
      LoopbackClient client(port);
      ASSERT_TRUE(client.connected());
      sockaddr_storage local;
      socklen_t length = sizeof(local);
      ASSERT_EQ(0, getsockname(client.fd(), reinterpret_cast<sockaddr*>(&local), &length));
      client_port = SocketAddress::fromSockaddr(reinterpret_cast<sockaddr*>(&local), length).port();
      const std::string request = "GET /keep HTTP/1.1\r\nHost: a\r\n\r\n";
      ASSERT_TRUE(client.write(request + request));
      client.shutdownWrite();
      const std::string answers = client.readToEnd();
      EXPECT_EQ(2u, countOf(answers, "\r\n\r\nkept\n")) << answers;
      client.close();
    }
    ASSERT_TRUE(waitNoConnections(server));
    std::vector<HttpRequestPtr> requests;
    runOnEventThreadAndWait([&] { requests = *kept; });
    ASSERT_EQ(2u, requests.size());
    for (const HttpRequestPtr& request : requests) {
      const PeerInfo& peer = request->peer();
      EXPECT_EQ(test.tls, peer.tls);
      EXPECT_EQ(test.tls ? "TLSv1.3" : "", peer.tls_version);
      EXPECT_EQ("127.0.0.1", peer.address.ip());
      if (!test.tls) {
        EXPECT_EQ(client_port, peer.address.port());
      }
    }
    EXPECT_EQ(requests[0]->peer().address, requests[1]->peer().address);
    RPCChannelPtr channel = test.tls ? RPCChannel::create("127.0.0.1:" + std::to_string(port),
                                                          channelTls("ca.pem", false))
                                     : RPCChannel::create(SocketAddress("127.0.0.1", port));
    ASSERT_TRUE(channel);
    EXPECT_EQ(std::string("ok: tls=") + (test.tls ? "1 version=TLSv1.3" : "0 version=") +
                  " subject= sans= address=yes",
              callEcho(channel.get()));
  }
  // A request the pool hands out again knows no caller, as a new one.
  runOnEventThreadAndWait([] {
    HttpRequestPtr used = message_pool::adopt(message_pool::newRequest());
    used->setPeerAddress(SocketAddress("127.0.0.1", 1));
    used.reset();
    HttpRequestPtr again = message_pool::adopt(message_pool::newRequest());
    EXPECT_FALSE(again->peer().address.isValid());
  });
}

// Answers written outside their connection's read, many in one callback:
// twenty clients park a request each, and the last to arrive completes them
// all, each with an answer of its own. Idle connections keep no write event
// and, over TLS, no output buffer of their own: each answer must still reach
// its own client whole, none of them another's bytes.
TEST(TlsTest, AnswersWrittenTogetherReachTheirOwnConnections) {
  // Run as `script PORT CA COUNT`: COUNT connections, over TLS checked against
  // CA, or plaintext when CA is "-".
  const std::string script = R"(
import socket, ssl, sys
port, ca, count = int(sys.argv[1]), sys.argv[2], int(sys.argv[3])
def connect():
    raw = socket.create_connection(("127.0.0.1", port), timeout=30)  # a guard against a hang
    if ca == "-":
        return raw
    return ssl.create_default_context(cafile=ca).wrap_socket(raw, server_hostname="127.0.0.1")
socks = [connect() for _ in range(count)]
for i, s in enumerate(socks):
    s.sendall(b"GET /park?%d HTTP/1.1\r\nHost: a\r\n\r\n" % i)
right = 0
for i, s in enumerate(socks):
    got, want = b"", b"answer %d." % i * 50
    while not got.endswith(want) and len(got) < 100000:
        try:
            chunk = s.recv(1 << 16)
        except socket.timeout:
            break
        if not chunk:
            break
        got += chunk
    right += got.endswith(b"\r\n\r\n" + want)
print(right)
)";
  constexpr int kClients = 20;
  for (bool tls : {true, false}) {
    SCOPED_TRACE(tls ? "TLS" : "plaintext");
    HttpServerOptions options;
    if (tls) options.tls = serverTls("server", false);
    std::shared_ptr<HttpServer> server = startServer(options);
    ASSERT_TRUE(server);
    // Event thread only.
    auto parked =
        std::make_shared<std::vector<std::pair<HttpResponsePtr, std::function<void()>>>>();
    server->registerAsyncHandler(
        "/park", [parked](const HttpRequestPtr& request, const HttpResponsePtr& response,
                          std::function<void()> done) {
          std::string text;
          for (int i = 0; i < 50; ++i) text += "answer " + request->url.query() + ".";
          setContent(response.get(), text);
          parked->emplace_back(response, std::move(done));
          if (parked->size() < kClients) return;
          for (auto& answer : *parked) answer.second();
          parked->clear();
        });
    EXPECT_EQ(std::to_string(kClients) + "\n",
              pythonOutput(script, std::to_string(server->localAddress().port()) + " " +
                                       (tls ? cert("ca.pem") : std::string("-")) + " " +
                                       std::to_string(kClients)));
    ASSERT_TRUE(waitNoConnections(server));
  }
}

// Uses the event thread's own OpenSSL state (its error queue, made again if
// it was freed) in every turn of the loop, for as long as the loop turns, as
// connections whose peers go at exit do. (Looked up at run time: the tests
// do not link libcrypto themselves.)
unsigned long (*peek_openssl_error)() = nullptr;
void useOpenSslInEveryTurn() {
  peek_openssl_error();
  defer(useOpenSslInEveryTurn);
}

// An exit handler between the library's and OpenSSL's: one more turn of the
// event thread, if it still runs, in which it uses OpenSSL again.
void waitForATurnOfTheEventThread() {
  runOnEventThreadAndWait([] {});
}

// The child of the next test: the event thread starts before OpenSSL is first
// used, then it makes a TLS handshake and goes on using OpenSSL, and the
// process exits.
TEST(TlsExitTest, ChildUsesTlsAfterTheEventThreadStarted) {
  if (getenv("HSL_TLS_EXIT_CHILD") == nullptr) GTEST_SKIP() << "run by the next test";
  ASSERT_TRUE(runOnEventThreadAndWait([] {}));
  // OpenSSL's exit handler made now, so that the next one runs after the
  // library's (made with its first TLS context) and before OpenSSL's.
  auto init_crypto =
      reinterpret_cast<int (*)(uint64_t, const void*)>(dlsym(RTLD_DEFAULT, "OPENSSL_init_crypto"));
  peek_openssl_error = reinterpret_cast<unsigned long (*)()>(dlsym(RTLD_DEFAULT, "ERR_peek_error"));
  ASSERT_TRUE(init_crypto && peek_openssl_error);
  // (Any option but none: asked for nothing, it does nothing.)
  const uint64_t kLoadCryptoStrings = 0x2;
  ASSERT_EQ(1, init_crypto(kLoadCryptoStrings, nullptr));
  atexit(waitForATurnOfTheEventThread);
  HttpServerOptions options;
  options.tls = serverTls("server", false);
  std::shared_ptr<HttpServer> server = startServer(options);
  ASSERT_TRUE(server);
  EXPECT_EQ("Hello, world!\n", curlTls(url(server, "/hello")));
  defer(useOpenSslInEveryTurn);
}

// The event thread's own OpenSSL state is freed at exit even when OpenSSL's
// exit handler would run before the event thread stops (a leak that only
// the leak checker of an AddressSanitizer build sees: the child then fails).
TEST(TlsExitTest, OpenSslStateOfTheEventThreadIsFreedAtExit) {
#ifndef HSL_LEAKS_CHECKED
  GTEST_SKIP() << "only a build with the leak checker sees the leak";
#endif
  char self[4096];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
  ASSERT_GT(length, 0);
  self[length] = '\0';
  int status = 0;
  const std::string output =
      shellOutput("HSL_TLS_EXIT_CHILD=1 " + std::string(self) +
                      " --gtest_filter=TlsExitTest.ChildUsesTlsAfterTheEventThreadStarted 2>&1",
                  &status);
  EXPECT_EQ(0, status) << output;
  EXPECT_EQ(std::string::npos, output.find("LeakSanitizer")) << output;
  EXPECT_NE(std::string::npos, output.find("[  PASSED  ] 1 test")) << output;
}

}  // namespace
}  // namespace relay
}  // namespace vantu
