// Against a real content server: nginx makes the ETags and answers
// If-None-Match with 304 by itself.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "network/network_manager.h"
#include "support/sdk_fixture.h"

namespace pactivo {
namespace {

using testing::loopback;
using testing::Nginx;
using testing::Program;
using testing::TempDir;

// A proxy that writes the request line of each request it receives to a
// file, then hangs up.
constexpr const char* kRecordingProxy = R"(import socket, sys
server = socket.create_server(("127.0.0.1", int(sys.argv[1])))
while True:
    client, head = server.accept()[0], b""
    while b"\r\n" not in head and (chunk := client.recv(4096)):
        head += chunk
    if head:  # not a mere check that it listens
        open(sys.argv[2], "a").write(head.split(b"\r\n")[0].decode() + "\n")
    client.close()
)";

// A private CA, a server certificate for 127.0.0.1 and a client certificate
// it signed, and a stranger's key, made into `dir`; false when openssl fails.
bool makePki(const std::filesystem::path& dir) {
  const std::string d = dir.string();
  const std::string script =
      "set -e; cd '" + d +
      "'; ec='-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes'\n"
      "openssl req -x509 $ec -keyout ca.key -out ca.pem -days 2 -subj /CN=Operator-CA\n"
      "openssl req $ec -keyout server.key -out server.csr -subj /CN=127.0.0.1\n"
      "printf 'subjectAltName=IP:127.0.0.1' > san.ext\n"
      "openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 "
      "-extfile san.ext -out server.pem\n"
      "openssl req $ec -keyout client.key -out client.csr -subj /CN=box-0001\n"
      "openssl x509 -req -in client.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 "
      "-out client.pem\n"
      "openssl genpkey -algorithm ec -pkeyopt ec_paramgen_curve:P-256 -out stranger.key\n"
      "mkdir cadir && cp ca.pem cadir/ && openssl rehash cadir\n"
      "echo 'not a certificate' > junk.pem\n";
  std::ofstream(dir / "make.sh") << script;
  return std::system(("bash '" + d + "/make.sh' >'" + d + "/make.log' 2>&1").c_str()) == 0;
}

class NginxTest : public testing::SdkTest {};

// One box inside an operator's network: which authorities it trusts, the
// certificate it shows, and the proxy it goes through.
TEST_F(NginxTest, OperatorTrustClientCertificatesAndProxies) {
  for (const char* tool : {"/usr/sbin/nginx", "/usr/bin/openssl", "/usr/bin/python3"}) {
    if (!std::filesystem::exists(tool)) GTEST_SKIP() << tool << " is not installed";
  }
  for (const char* name : {"SSL_CERT_FILE", "SSL_CERT_DIR", "https_proxy", "HTTPS_PROXY",
                           "http_proxy", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
    unsetenv(name);
  }
  TempDir pki;
  ASSERT_TRUE(makePki(pki.path())) << "openssl could not make the test's certificates";
  const auto file = [&](const char* name) { return pki.path() / name; };
  TempDir www;
  std::ofstream(www.path() / "ping") << "pong";
  const std::string certificate = "ssl_certificate " + file("server.pem").string() +
                                  "; ssl_certificate_key " + file("server.key").string() + ";";
  Nginx tls(www.path(), certificate);
  Nginx mutual(www.path(), certificate + " ssl_verify_client on; ssl_client_certificate " +
                               file("ca.pem").string() + ";");
  const int proxyPort = loopback(0, true);
  const auto record = pki.path() / "proxy.log";
  std::ofstream(pki.path() / "proxy.py") << kRecordingProxy;
  Program proxy({"/usr/bin/python3", (pki.path() / "proxy.py").string(), std::to_string(proxyPort),
                 record.string()});
  ASSERT_TRUE(testing::eventually([&] { return loopback(proxyPort, false) == proxyPort; }));
  const std::string proxyUrl = "http://127.0.0.1:" + std::to_string(proxyPort);
  const std::string ca = file("ca.pem"), cadir = file("cadir");

  const NetworkSettings trusted{.caFile = ca}, clientsAsCa{.caFile = file("client.pem")},
      junk{.caFile = file("junk.pem")}, noDirectory{.caDirectory = file("none")},
      hostProxy{.caFile = ca, .proxy = proxyUrl};
  const NetworkSettings withClient{
      .caFile = ca, .clientCertificate = file("client.pem"), .clientKey = file("client.key")};
  NetworkSettings strangersKey = withClient, certificateGone = withClient;
  strangersKey.clientKey = file("stranger.key");
  certificateGone.clientCertificate = file("gone.pem");
  using Environment = std::vector<std::pair<const char*, std::string>>;
  const Environment envProxy{{"https_proxy", proxyUrl}}, noProxy{{"no_proxy", "127.0.0.1"}},
      both{envProxy[0], noProxy[0]};
  struct Row {
    const char* name;
    bool mutualTls;
    NetworkSettings settings;
    Environment environment;
    bool served;
    std::string problem = "";  // what setup reports
    bool proxied = false;      // the proxy saw a CONNECT to the server (and hung up)
  };
  const Row rows[] = {
      {"system store only: private CA refused", false, {}, {}, false},
      {"CA file", false, trusted, {}, true},
      {"CA directory", false, {.caDirectory = cadir}, {}, true},
      {"SSL_CERT_FILE", false, {}, {{"SSL_CERT_FILE", ca}}, true},
      {"SSL_CERT_DIR", false, {}, {{"SSL_CERT_DIR", cadir}}, true},
      {"the host's CA file replaces SSL_CERT_FILE",
       false,
       clientsAsCa,
       {{"SSL_CERT_FILE", ca}},
       false},
      {"CA file that is not PEM", false, junk, {}, false, "holds no PEM certificate"},
      {"CA directory missing", false, noDirectory, {}, false, "cannot be read"},
      {"mutual TLS without a certificate", true, trusted, {}, false},
      {"mutual TLS with one", true, withClient, {}, true},
      {"client key of another", true, strangersKey, {}, false, "does not belong to certificate"},
      {"client certificate missing", true, certificateGone, {}, false, "cannot be read"},
      {"https_proxy", false, trusted, envProxy, false, "", true},
      {"no_proxy bypasses it", false, trusted, both, true},
      {"the host's proxy wins over no_proxy", false, hostProxy, noProxy, false, "", true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove(record);
    for (const auto& [name, value] : row.environment) setenv(name, value.c_str(), 1);
    platform().setNetworkSettings(row.settings);
    const auto problems = detail::networkSettingsProblems(row.settings);
    EXPECT_EQ(problems.size(), row.problem.empty() ? 0u : 1u);
    for (const auto& problem : problems) EXPECT_NE(problem.find(row.problem), std::string::npos);
    const int port = row.mutualTls ? mutual.port : tls.port;
    std::string outcome;
    try {
      auto exchange = detail::ConsentNetworkManager().send(
          {"https://127.0.0.1:" + std::to_string(port) + "/ping", "GET", {}, {}});
      outcome = std::to_string(exchange.response ? exchange.response->statusCode : 0) + " " +
                exchange.body.value_or("");
    } catch (const detail::TransportError& error) {
      outcome = error.what();
    }
    EXPECT_EQ(outcome == "200 pong", row.served) << outcome;
    std::ifstream seen(record);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(seen), {}),
              row.proxied ? "CONNECT 127.0.0.1:" + std::to_string(port) + " HTTP/1.1\n" : "");
    for (const auto& [name, value] : row.environment) unsetenv(name);
  }
}

// Setup names a broken client certificate once, and every request tells the
// server who asks and in which languages.
TEST_F(NginxTest, SetupReportsNetworkProblemsOnceAndRequestsIdentifyTheBox) {
  platform().setNetworkSettings({.clientCertificate = "/nonexistent/box.pem"});
  platform().setPreferredLanguages({"de-DE", "de", "en"});
  platform().setInfo("CFBundleShortVersionString", "4.2");
  setup();
  EXPECT_EQ(log_.count("client certificate /nonexistent/box.pem cannot be read"), 1u)
      << log_.text();
  const std::string agent =
      "Pactivo/" + *LinuxPlatform().libraryVersion() + " (Linux; Fake TV/4.2)";
  ASSERT_FALSE(cdn_.requests().empty());
  for (const auto& request : cdn_.requests()) {
    EXPECT_EQ(request.header("User-Agent"), agent);
    EXPECT_EQ(request.header("Accept-Language"), "de-DE, de;q=0.9, en;q=0.8");
  }
  EXPECT_EQ(detail::acceptLanguage({"a", "b", "c", "d", "e", "f", "g"}),
            "a, b;q=0.9, c;q=0.8, d;q=0.7, e;q=0.6, f;q=0.5");
}

// What the server keeps and answers is pinned against a scripted one in
// CdnCacheTest.NotModifiedKeepsCacheAndTimestamp; here nginx makes both.
TEST_F(NginxTest, StoresNginxETagAndKeepsCacheOn304) {
  if (!std::filesystem::exists("/usr/sbin/nginx")) GTEST_SKIP() << "nginx is not installed";
  TempDir www;
  const auto folder = www.path() / "consent/mobile_banner/t/a/live";
  std::filesystem::create_directories(folder);
  std::filesystem::copy_file(std::filesystem::path(PACTIVO_EXAMPLES_DIR) / "configuration.json",
                             folder / "config_en.json");
  Nginx nginx(www.path());
  setup({.cdnUrl = "http://127.0.0.1:" + std::to_string(nginx.port) + "/"});
  ASSERT_EQ(sdk_->getStatus(), SDKStatus::available) << log_.text();
  auto etag = UserDefaultManager::getETag();
  // nginx's form: "<mtime hex>-<size hex>" in quotes.
  ASSERT_TRUE(etag && etag->front() == '"' && etag->find('-') != std::string::npos)
      << etag.value_or("no ETag");
  platform().advance(3601);
  log_.clear();
  ASSERT_TRUE(impl_.getCDNFile());
  EXPECT_TRUE(log_.contains("getCDNFile() - CDN Configuration is up to date")) << log_.text();
  EXPECT_EQ(UserDefaultManager::getETag(), etag);
}

}  // namespace
}  // namespace pactivo
