#include <gmock/gmock.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>

#include "platform/http/client_io.h"
#include "platform/http/json_http_session.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/http/peers.h"

namespace {

using ::testing::HasSubstr;

// A server with a certificate of its own for "localhost" and 127.0.0.1, and another certificate to distrust.
class Tls : public ::testing::Test {
 protected:
  void SetUp() override {
    make("good", "subjectAltName=DNS:localhost,IP:127.0.0.1");
    make("other", "subjectAltName=DNS:other.example");
    start("good");
  }
  void TearDown() override { TLS_Settings::set({}); }

  void make(const std::string& name, const std::string& names) {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=test -days 30 "
        "-addext " +
        names + " -keyout " + folder_ / (name + ".key") + " -out " + folder_ / (name + ".crt") +
        " 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
  }

  // Signs the certificate anew with an end in the past, which the command line tool cannot do.
  void expire(const std::string& name) {
    const auto file = [&](const char* kind, const char* mode) {
      return std::fopen((folder_ / (name + kind)).c_str(), mode);
    };
    std::FILE *certificate_file = file(".crt", "r+"), *key_file = file(".key", "r");
    X509* certificate = PEM_read_X509(certificate_file, nullptr, nullptr, nullptr);
    EVP_PKEY* key = PEM_read_PrivateKey(key_file, nullptr, nullptr, nullptr);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -7200);
    X509_gmtime_adj(X509_getm_notAfter(certificate), -3600);
    EXPECT_GT(X509_sign(certificate, key, EVP_sha256()), 0);
    std::rewind(certificate_file);
    EXPECT_EQ(PEM_write_X509(certificate_file, certificate), 1);
    X509_free(certificate);
    EVP_PKEY_free(key);
    std::fclose(certificate_file);
    std::fclose(key_file);
  }

  void start(const std::string& name) {
    HTTP_Server_Options options;
    options.addresses.push_back({"127.0.0.1", 0, true, folder_ / (name + ".crt"), folder_ / (name + ".key")});
    options.streams = [](const Server_Request& request) { return request.method == "POST"; };
    server_ = std::make_unique<Test_Server>(
        [this](const Server_Request& request, Server_Response& response) {
          response.json(200, json_spirit::Value{{"tls", request.tls}});
          char part[100000];
          ssize_t got = 0;
          while (request.stream != nullptr && (got = request.stream->read(part, sizeof(part))) > 0)
            received_ += got;
          if (got < 0) received_ = -1;
        },
        options);
  }

  std::string connect(const std::string& ca, const std::string& server_name = "", bool verify = true) {
    TLS_Settings settings;
    settings.ca_file = ca.empty() ? "" : folder_ / ca;
    settings.server_name = server_name;
    settings.verify = verify;
    HTTP_Failure failure;
    const auto session =
        HTTP_Session_Factory::try_create("127.0.0.1", server_->port(), true, &settings, 10, failure);
    if (session == nullptr) return (failure.temporary ? "again: " : "") + failure.text;
    HTTP_Response response;
    if (!session->send(HTTP_Request(), response, failure)) return failure.text;
    return response.body;
  }

  Temp_Dir folder_;
  std::unique_ptr<Test_Server> server_;
  ssize_t received_ = 0;
};

TEST_F(Tls, VerifiesThePeer) {
  EXPECT_EQ(connect("good.crt"), "{\"tls\":true}");
  EXPECT_EQ(connect("good.crt", "localhost"), "{\"tls\":true}");
  EXPECT_EQ(connect("", "", false), "{\"tls\":true}");
  EXPECT_THAT(connect("other.crt"), HasSubstr("refused: self-signed certificate"));
  EXPECT_THAT(connect(""), HasSubstr("refused: self-signed certificate"));
  EXPECT_THAT(connect("good.crt", "elsewhere.example"),
              HasSubstr("refused: hostname mismatch (expected name 'elsewhere"));
  EXPECT_THAT(connect("good.crt", "127.0.0.2"), HasSubstr("refused: IP address mismatch"));
  EXPECT_THAT(connect("missing.crt"), HasSubstr("cannot read the certificates of"));
}

TEST_F(Tls, AnExpiredCertificateIsRefused) {
  make("old", "subjectAltName=IP:127.0.0.1");
  expire("old");
  start("old");
  EXPECT_THAT(connect("old.crt"), HasSubstr("refused: certificate has expired"));
}

TEST_F(Tls, ASilentPeerDoesNotHoldTheHandshake) {
  Raw_Peer silent({[](int fd) { read_to_end(fd, 3000); }});
  HTTP_Failure failure;
  EXPECT_EQ(HTTP_Session_Factory::try_create("127.0.0.1", silent.port(), true, nullptr, 1, failure), nullptr);
  EXPECT_THAT(failure.text, HasSubstr("TLS handshake: timed out"));
}

TEST_F(Tls, ACutIsNoEnd) {
  TLS_Settings settings;
  settings.verify = false;
  TLS_Settings::set(settings);
  {
    Client_IO io;
    ASSERT_TRUE(io.connect(URI("https", "127.0.0.1", server_->port(), "/p"), {}));
    ASSERT_TRUE(io.open("f", Client_IO::WRITE));
    ASSERT_TRUE(io.write(std::string(70000, 'x').data(), 70000));
  }
  server_->server().stop();
  EXPECT_EQ(received_, -1);
}

}  // namespace
