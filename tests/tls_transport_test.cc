// The TLS state machine on its own: a client and a server transport joined in
// memory (each one's wire is the other's input), with certificates made for
// the run by scripts/make-test-certs.

#include "net/tls_transport.h"

#include <dlfcn.h>
#include <event2/buffer.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/test_certs.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::cert;

// A client and a server over memory. Bytes move only when pump() says so,
// in pieces of at most `piece` bytes, as reads from a network would bring them.
class Pair {
 public:
  explicit Pair(const std::string& server_name, bool client_cert = false)
      : client_wire(evbuffer_new()), server_wire(evbuffer_new()) {
    std::string error;
    server_context_ = TlsContext::newServer(cert("server.pem"), cert("server-key.pem"),
                                            client_cert ? cert("ca.pem") : "", &error);
    EXPECT_TRUE(server_context_) << error;
    client_context_ = TlsContext::newClient(cert("ca.pem"), client_cert ? cert("client.pem") : "",
                                            client_cert ? cert("client-key.pem") : "", &error);
    EXPECT_TRUE(client_context_) << error;
    server = TlsTransport::newServer(server_context_, server_wire);
    client = TlsTransport::newClient(client_context_, server_name, client_wire);
  }
  ~Pair() {
    client.reset();
    server.reset();
    evbuffer_free(client_wire);
    evbuffer_free(server_wire);
  }

  // Delivers what one side wrote to the other, `piece` bytes at a time,
  // driving its handshake and reading what decrypts into *received. The
  // last result.
  TlsTransport::Result deliver(struct evbuffer* from, TlsTransport* to, size_t piece,
                               std::string* received) {
    TlsTransport::Result result = TlsTransport::Result::kWantMore;
    std::string bytes(evbuffer_get_length(from), '\0');
    evbuffer_remove(from, &bytes[0], bytes.size());
    for (size_t at = 0; at < bytes.size(); at += piece) {
      to->setInput(bytes.data() + at, std::min(piece, bytes.size() - at));
      if (!to->established()) {
        result = to->handshake();
        if (result != TlsTransport::Result::kOk) continue;
      }
      char plain[16384];
      size_t got = 0;
      while ((result = to->read(plain, sizeof(plain), &got)) == TlsTransport::Result::kOk) {
        received->append(plain, got);
      }
      if (result == TlsTransport::Result::kFailed || result == TlsTransport::Result::kClosed) {
        break;
      }
    }
    return result;
  }

  // Runs the handshake to its end either way; true when both are up.
  bool handshake(size_t piece) {
    client->setInput(nullptr, 0);
    client->handshake();
    for (int flight = 0; flight < 4; ++flight) {
      deliver(client_wire, server.get(), piece, &to_server);
      if (deliver(server_wire, client.get(), piece, &to_client) == TlsTransport::Result::kFailed) {
        return false;
      }
    }
    return client->established() && server->established() && server->error().empty();
  }

  // What each side wrote, not yet delivered.
  struct evbuffer* const client_wire;
  struct evbuffer* const server_wire;
  std::unique_ptr<TlsTransport> server;
  std::unique_ptr<TlsTransport> client;
  std::string to_server;
  std::string to_client;

 private:
  std::shared_ptr<TlsContext> server_context_;
  std::shared_ptr<TlsContext> client_context_;
};

TEST(TlsTransportTest, BytesSurviveAnySplitAndEndWithCloseNotify) {
  // Large enough for several full records, with a tail in a partial one.
  std::string message;
  for (int i = 0; message.size() < 70000; ++i) message += std::to_string(i) + ",";
  for (size_t piece : {size_t{1}, size_t{5}, size_t{4096}, size_t{1} << 20}) {
    SCOPED_TRACE("pieces of " + std::to_string(piece));
    Pair pair("127.0.0.1");
    ASSERT_TRUE(pair.handshake(piece)) << pair.client->error();
    ASSERT_TRUE(pair.client->write(message.data(), message.size()));
    pair.client->close();
    EXPECT_EQ(TlsTransport::Result::kClosed,
              pair.deliver(pair.client_wire, pair.server.get(), piece, &pair.to_server));
    EXPECT_EQ(message, pair.to_server);
    // Half-closed: the server still answers after the client's close_notify.
    ASSERT_TRUE(pair.server->write("answer", 6));
    pair.deliver(pair.server_wire, pair.client.get(), piece, &pair.to_client);
    EXPECT_EQ("answer", pair.to_client);
  }
}

TEST(TlsTransportTest, HandshakeReportsTheVerifiedPeersOrWhyItFailed) {
  Pair mutual("localhost", true);
  ASSERT_TRUE(mutual.handshake(4096)) << mutual.server->error();
  // TLS 1.3: the server verifies the client's certificate on its last flight.
  EXPECT_EQ("CN=test-client,O=relay tests", mutual.server->session().peer_subject);
  EXPECT_EQ((std::vector<std::string>{"URI:spiffe://test/client", "DNS:client.test"}),
            mutual.server->session().peer_sans);
  // The server's own certificate, as the client sees it (IP SANs as text).
  EXPECT_EQ((std::vector<std::string>{"IP:127.0.0.1", "IP:::1", "DNS:localhost"}),
            mutual.client->session().peer_sans);

  Pair named("example.org");
  EXPECT_FALSE(named.handshake(4096));
  EXPECT_EQ("TLS handshake failed: certificate verify failed: hostname mismatch",
            named.client->error());
  // Garbage where a handshake should be.
  Pair pair("localhost");
  std::string ignored;
  evbuffer_add(pair.client_wire, "GET / HTTP/1.1\r\n\r\n", 18);
  EXPECT_EQ(TlsTransport::Result::kFailed,
            pair.deliver(pair.client_wire, pair.server.get(), 4096, &ignored));
  EXPECT_EQ("TLS handshake failed: http request", pair.server->error());
}

// The transports of a thread share one BIO, pointed at the caller on each
// call. Handshakes and records of several connections, interleaved flight by
// flight, must each reach their own wire and input, also for a transport
// made on another thread; and one that has no wire lent must fail, not write
// into another's.
TEST(TlsTransportTest, InterleavedTransportsKeepTheirOwnBytes) {
  std::unique_ptr<Pair> made_elsewhere;
  // Made and started on a thread that is gone by the time it goes on here:
  // the server asked last there, so that thread's BIO was left pointing at it.
  std::thread([&made_elsewhere] {
    made_elsewhere.reset(new Pair("127.0.0.1"));
    made_elsewhere->client->setInput(nullptr, 0);
    made_elsewhere->client->handshake();
    made_elsewhere->server->setInput(nullptr, 0);
    made_elsewhere->server->handshake();
  }).join();
  Pair first("127.0.0.1");
  Pair second("localhost", true);
  const std::vector<Pair*> pairs = {&first, made_elsewhere.get(), &second};
  for (Pair* pair : pairs) {
    pair->client->setInput(nullptr, 0);
    pair->client->handshake();
  }
  for (int flight = 0; flight < 4; ++flight) {
    for (Pair* pair : pairs) {
      pair->deliver(pair->client_wire, pair->server.get(), 4096, &pair->to_server);
      pair->deliver(pair->server_wire, pair->client.get(), 4096, &pair->to_client);
    }
  }
  for (size_t i = 0; i < pairs.size(); ++i) {
    SCOPED_TRACE("pair " + std::to_string(i));
    ASSERT_TRUE(pairs[i]->client->established()) << pairs[i]->client->error();
    ASSERT_TRUE(pairs[i]->server->established()) << pairs[i]->server->error();
  }
  for (int round = 0; round < 3; ++round) {
    for (size_t i = 0; i < pairs.size(); ++i) {
      const std::string up = "up " + std::to_string(round) + " " + std::to_string(i) + ";";
      const std::string down = "down " + std::to_string(round) + " " + std::to_string(i) + ";";
      ASSERT_TRUE(pairs[i]->client->write(up.data(), up.size()));
      ASSERT_TRUE(pairs[i]->server->write(down.data(), down.size()));
    }
    for (Pair* pair : pairs) {
      pair->deliver(pair->client_wire, pair->server.get(), 7, &pair->to_server);
      pair->deliver(pair->server_wire, pair->client.get(), 7, &pair->to_client);
    }
  }
  for (size_t i = 0; i < pairs.size(); ++i) {
    SCOPED_TRACE("pair " + std::to_string(i));
    const std::string n = " " + std::to_string(i) + ";";
    EXPECT_EQ("up 0" + n + "up 1" + n + "up 2" + n, pairs[i]->to_server);
    EXPECT_EQ("down 0" + n + "down 1" + n + "down 2" + n, pairs[i]->to_client);
  }
  // Records with nowhere to go are a failure, and nothing lands elsewhere.
  const size_t before = evbuffer_get_length(second.server_wire);
  first.server->setWire(nullptr);
  EXPECT_FALSE(first.server->write("lost", 4));
  EXPECT_FALSE(first.server->error().empty());
  EXPECT_EQ(0u, evbuffer_get_length(first.server_wire));
  EXPECT_EQ(before, evbuffer_get_length(second.server_wire));
}

// Queues an error on this thread's OpenSSL queue, as another user of OpenSSL
// in the process might leave one, or empties it. (Looked up at run time: the
// tests do not link libcrypto themselves.)
void leaveOpenSslError() {
  auto error_new = reinterpret_cast<void (*)()>(dlsym(RTLD_DEFAULT, "ERR_new"));
  auto error_set =
      reinterpret_cast<void (*)(int, int, const char*, ...)>(dlsym(RTLD_DEFAULT, "ERR_set_error"));
  ASSERT_TRUE(error_new && error_set);
  error_new();
  error_set(ERR_LIB_USER, 1, nullptr);
}
void clearOpenSslErrors() {
  auto clear = reinterpret_cast<void (*)()>(dlsym(RTLD_DEFAULT, "ERR_clear_error"));
  ASSERT_TRUE(clear);
  clear();
}

// Someone else's OpenSSL failure, left queued on this thread, is not this
// connection's: each step still says what became of it.
TEST(TlsTransportTest, AnErrorLeftOnTheThreadIsNotTheConnections) {
  Pair pair("127.0.0.1");
  leaveOpenSslError();
  ASSERT_TRUE(pair.handshake(4096)) << pair.client->error() << pair.server->error();
  char plain[64];
  size_t got = 0;
  leaveOpenSslError();
  pair.server->setInput(nullptr, 0);
  EXPECT_EQ(TlsTransport::Result::kWantMore, pair.server->read(plain, sizeof(plain), &got));
  leaveOpenSslError();
  EXPECT_TRUE(pair.server->write("answer", 6)) << pair.server->error();
  pair.deliver(pair.server_wire, pair.client.get(), 4096, &pair.to_client);
  EXPECT_EQ("answer", pair.to_client);
  clearOpenSslErrors();
}

}  // namespace
}  // namespace relay
}  // namespace vantu
