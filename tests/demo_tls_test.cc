// The demo server's TLS flags, run as a process of its own: answered by curl
// and Python's ssl module, client certificates required with --tls-client-ca,
// and the certificate files loaded again on SIGHUP.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/demo_process.h"
#include "tests/shell_output.h"
#include "tests/test_certs.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::cert;
using vantu::testing::DemoProcess;
using vantu::testing::eventually;
using vantu::testing::testCertDir;

std::unique_ptr<DemoProcess> startTlsDemo(const std::string& chain, const std::string& key,
                                          const std::string& client_ca = "") {
  std::vector<std::string> flags = {"--tls-cert", chain, "--tls-key", key};
  if (!client_ca.empty()) {
    flags.push_back("--tls-client-ca");
    flags.push_back(client_ca);
  }
  auto demo = std::make_unique<DemoProcess>(DEMO_SERVER_PATH, 0, flags);
  EXPECT_TRUE(demo->ok()) << "cannot start " << DEMO_SERVER_PATH;
  return demo;
}

std::string curl(const std::string& arguments, int* status) {
  return vantu::testing::curlTls(arguments + " 2>/dev/null", status);
}

TEST(DemoTlsTest, ServesHttpsToCurlAndPythonAndNothingInClear) {
  std::unique_ptr<DemoProcess> demo = startTlsDemo(cert("server.pem"), cert("server-key.pem"));
  ASSERT_TRUE(demo->ok());
  const std::string base = "https://127.0.0.1:" + std::to_string(demo->port());
  int status = -1;
  EXPECT_NE("", curl(base + "/hello", &status));
  EXPECT_EQ(0, status);
  const std::string echo = curl(base + "/echo", &status);
  EXPECT_NE(std::string::npos,
            echo.find("\"tls\":{\"version\":\"TLSv1.3\",\"client_subject\":\"\"}"))
      << echo;

  EXPECT_EQ("HTTP/1.1 200 OK True\nFalse\n",
            vantu::testing::pythonOutput(R"(
import socket, ssl, sys
port, ca = int(sys.argv[1]), sys.argv[2]
context = ssl.create_default_context(cafile=ca)
context.maximum_version = ssl.TLSVersion.TLSv1_2
with socket.create_connection(("127.0.0.1", port), timeout=30) as raw:
    with context.wrap_socket(raw, server_hostname="localhost") as tls:
        tls.sendall(b"GET /echo HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n")
        answer = b""
        while True:
            chunk = tls.recv(65536)
            if not chunk:
                break
            answer += chunk
print(answer.split(b"\r\n")[0].decode(), b'"version":"TLSv1.2"' in answer)
# The same port in clear: no answer in clear, only a closed connection.
with socket.create_connection(("127.0.0.1", port), timeout=30) as raw:
    raw.sendall(b"GET /hello HTTP/1.1\r\nHost: a\r\n\r\n")
    got = b""
    try:
        while True:
            chunk = raw.recv(65536)
            if not chunk:
                break
            got += chunk
    except ConnectionResetError:
        pass
print(b"HTTP/1.1" in got)
)",
                                         std::to_string(demo->port()) + " " + cert("ca.pem")));
}

TEST(DemoTlsTest, ClientCaFlagRequiresAndShowsTheClientCertificate) {
  std::unique_ptr<DemoProcess> demo =
      startTlsDemo(cert("server.pem"), cert("server-key.pem"), cert("ca.pem"));
  ASSERT_TRUE(demo->ok());
  const std::string echo = "https://127.0.0.1:" + std::to_string(demo->port()) + "/echo";
  int status = 0;
  EXPECT_EQ("", curl(echo, &status));
  EXPECT_NE(0, status) << "answered without a client certificate";
  const std::string answer = curl(
      "--cert " + cert("client.pem") + " --key " + cert("client-key.pem") + " " + echo, &status);
  EXPECT_EQ(0, status);
  EXPECT_NE(std::string::npos, answer.find("\"client_subject\":\"CN=test-client,O=relay tests\""))
      << answer;
}

TEST(DemoTlsTest, SighupLoadsTheCertificateFilesAgain) {
  const std::string chain = testCertDir() + "/demo-reload.pem";
  const std::string key = testCertDir() + "/demo-reload-key.pem";
  ASSERT_TRUE(vantu::testing::installCert("server", chain, key));
  std::unique_ptr<DemoProcess> demo = startTlsDemo(chain, key);
  ASSERT_TRUE(demo->ok());
  const std::string port = std::to_string(demo->port());
  const std::string by_ip = "https://127.0.0.1:" + port + "/hello";
  const std::string as_wrong_name =
      "--resolve wrong.example:" + port + ":127.0.0.1 https://wrong.example:" + port + "/hello";
  int status = -1;
  curl(by_ip, &status);
  EXPECT_EQ(0, status);
  curl(as_wrong_name, &status);
  EXPECT_NE(0, status) << "the name the next certificate carries was accepted already";

  ASSERT_TRUE(vantu::testing::installCert("wrong-name", chain, key));
  demo->signal(SIGHUP);
  // The signal is taken in its own time: ask until the new certificate is
  // served (bounded).
  EXPECT_TRUE(eventually([&] {
    int code = -1;
    curl(as_wrong_name, &code);
    return code == 0;
  }));
  curl(by_ip, &status);
  EXPECT_NE(0, status) << "still served the old certificate";

  // A bad file on SIGHUP leaves the files in use in place.
  std::ofstream(chain) << "not a certificate\n";
  demo->signal(SIGHUP);
  curl(as_wrong_name, &status);
  EXPECT_EQ(0, status);
  demo->signal(SIGTERM);
  EXPECT_EQ(0, demo->waitForExit(30000));
}

}  // namespace
}  // namespace relay
}  // namespace vantu
