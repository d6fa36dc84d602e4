#include <signal.h>

#include <cstdio>

#include "host/child_process.hpp"
#include "origin/scripted_server.hpp"
#include "siblings/security/transport.hpp"
#include "transport/fixture.hpp"
#include "transport/http_client.hpp"

namespace tidalcrest::sync {
namespace {

// A TLS server on loopback that answers with whole raw answers out of a directory, its certificate signed by
// nobody but itself.
class TlsServer {
 public:
  explicit TlsServer(const testing::TempDir& dir) {
    const std::string command =
        "exec 2>/dev/null && cd '" + dir.path() +
        "' && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj "
        "/CN=localhost -addext subjectAltName=DNS:localhost -keyout key.pem -out cert.pem && echo $$ && "
        "exec openssl s_server -accept 127.0.0.1:0 -cert cert.pem -key key.pem -HTTP -no_ticket";
    _output = popen(command.c_str(), "r");
    if (std::fscanf(_output, "%d", &_pid) != 1) return;
    char line[256];
    while (std::fgets(line, sizeof line, _output) != nullptr &&
           std::sscanf(line, "ACCEPT 127.0.0.1:%d", &_port) != 1) {
    }
  }
  TlsServer(const TlsServer&) = delete;
  TlsServer& operator=(const TlsServer&) = delete;
  ~TlsServer() {
    if (_pid != 0) ::kill(_pid, SIGKILL);
    pclose(_output);
  }
  bool is_up() const { return _port != 0; }
  std::string url(const std::string& host, const std::string& name) const {
    return "https://" + host + ":" + std::to_string(_port) + "/" + name;
  }

 private:
  FILE* _output = nullptr;
  pid_t _pid = 0;
  int _port = 0;
};

// Trusts one certificate file in place of the system's roots.
class OneRoot final : public security::Module {
 public:
  explicit OneRoot(std::string ca_file) : _ca_file(std::move(ca_file)) {}
  void validate_bearer_transport_url(const std::string&) override {}
  security::SslContext tidalcrest_ssl_context() override {
    return {.ca_file = _ca_file, .ca_directory = "/none"};
  }

 private:
  const std::string _ca_file;
};

class TlsTest : public testing::TransportTest {
 public:
  TlsTest() {
    if (find_executable("openssl")) server.emplace(dir);
  }
  ~TlsTest() override { security::module_seam().install(nullptr); }
  void SetUp() override {
    if (!server) GTEST_SKIP() << "no openssl program to serve TLS with";
    ASSERT_TRUE(server->is_up());
  }

  testing::TempDir dir;
  std::optional<TlsServer> server;
  HttpClient client{seams};
};

TEST_F(TlsTest, TrustsNoCertificateButThoseOfTheRootsAndTheName) {
  dir.write("f", "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nConnection: close\r\n\r\nbody");
  const auto opened = [this](const std::string& host) {
    return failure_of([&] { client._open_request({server->url(host, "f"), {}}, 5.0); });
  };
  EXPECT_THAT(opened("localhost"), StartsWith("URLError: SSL certificate problem"));
  security::module_seam().install(std::make_shared<OneRoot>(dir.path("cert.pem")));
  EXPECT_EQ(opened("localhost"), "nothing");
  EXPECT_THAT(opened("127.0.0.1"), StartsWith("URLError: "));  // not a name of the certificate
}

TEST_F(TlsTest, ARedirectNeverStepsDownToHttp) {
  origin::ScriptedServer plain;
  plain.serve("/f", "body");
  dir.write("f", "HTTP/1.1 302 Found\r\nLocation: " + plain.url() + "/f\r\nContent-Length: 0\r\n\r\n");
  security::module_seam().install(std::make_shared<OneRoot>(dir.path("cert.pem")));
  EXPECT_EQ(client._http_get(server->url("localhost", "f"), "secret").status, 302);
  EXPECT_TRUE(plain.requests().empty());
}

}  // namespace
}  // namespace tidalcrest::sync
