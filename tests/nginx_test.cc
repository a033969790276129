// Against a real content server, nginx, inside an operator's network: which
// authorities a box trusts, the certificate it shows, the proxy it goes
// through; and the ETags nginx makes and answers with 304 by itself.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "network/network_manager.h"
#include "support/sdk_fixture.h"

namespace pactivo {
namespace {

using testing::TempDir;

// A private CA, a server certificate for 127.0.0.1 and a client certificate
// it signed, and a stranger's key, made into `dir`; false when openssl fails.
bool makePki(const std::string& dir) {
  std::ofstream(dir + "/make.sh")
      << "set -e; cd '" + dir +
             "'; ec='-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2'\n"
      << "leaf='-CA ca.pem -CAkey ca.key -addext basicConstraints=CA:FALSE'\n"
      << "openssl req -x509 $ec -keyout ca.key -out ca.pem -subj /CN=Operator-CA\n"
      << "openssl req -x509 $ec $leaf -keyout server.key -out server.pem -subj /CN=127.0.0.1 "
         "-addext subjectAltName=IP:127.0.0.1\n"
      << "openssl req -x509 $ec $leaf -keyout client.key -out client.pem -subj /CN=box-0001\n"
      << "openssl genpkey -algorithm ec -pkeyopt ec_paramgen_curve:P-256 -out stranger.key\n"
      << "mkdir cadir && cp ca.pem cadir/ && openssl rehash cadir\n"
      << "echo 'not a certificate' > junk.pem\n";
  return std::system(("bash '" + dir + "/make.sh' >'" + dir + "/make.log' 2>&1").c_str()) == 0;
}

class NginxTest : public testing::SdkTest {};

TEST_F(NginxTest, OperatorTrustClientCertificatesProxiesAndETags) {
  if (!std::filesystem::exists("/usr/sbin/nginx") || !std::filesystem::exists("/usr/bin/openssl")) {
    GTEST_SKIP() << "nginx or openssl is not installed";
  }
  for (const char* name : {"SSL_CERT_FILE", "SSL_CERT_DIR", "https_proxy", "HTTPS_PROXY",
                           "http_proxy", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
    unsetenv(name);
  }
  TempDir pki, www;
  ASSERT_TRUE(makePki(pki.path())) << "openssl could not make the test's certificates";
  const auto f = [&](const char* name) { return (pki.path() / name).string(); };
  std::ofstream(www.path() / "ping") << "pong";
  const std::string certificate =
      "ssl_certificate " + f("server.pem") + "; ssl_certificate_key " + f("server.key") + ";";
  testing::Nginx tls(www.path(), certificate);
  testing::Nginx mutual(www.path(), certificate + " ssl_verify_client on; ssl_client_certificate " +
                                        f("ca.pem") + ";");
  const std::string ca = f("ca.pem"), cadir = f("cadir");
  const NetworkSettings trusted{.caFile = ca}, proxied{.caFile = ca, .proxy = "proxy"},
      clientsAsCa{.caFile = f("client.pem")}, junk{.caFile = f("junk.pem")},
      withClient{.caFile = ca, .clientCertificate = f("client.pem"), .clientKey = f("client.key")};
  NetworkSettings strangersKey = withClient, certificateGone = withClient;
  strangersKey.clientKey = f("stranger.key");
  certificateGone.clientCertificate = f("gone.pem");
  // A proxy named "proxy" is one that records a CONNECT and hangs up.
  using Environment = std::vector<std::pair<const char*, std::string>>;
  const Environment envProxy{{"https_proxy", "proxy"}}, noProxy{{"no_proxy", "127.0.0.1"}},
      both{envProxy[0], noProxy[0]};
  struct Row {
    const char* name;
    bool mutualTls;
    NetworkSettings settings;
    Environment environment;
    bool served;
    std::string problem = "";  // what setup reports
    bool proxied = false;      // the proxy saw a CONNECT to the server
  };
  const Row rows[] = {
      {"system store only: private CA refused", false, {}, {}, false},
      {"CA file", false, trusted, {}, true},
      {"CA directory", false, {.caDirectory = cadir}, {}, true},
      {"SSL_CERT_FILE", false, {}, {{"SSL_CERT_FILE", ca}}, true},
      {"SSL_CERT_DIR", false, {}, {{"SSL_CERT_DIR", cadir}}, true},
      {"the host's CA file replaces it", false, clientsAsCa, {{"SSL_CERT_FILE", ca}}, false},
      {"CA file that is not PEM", false, junk, {}, false, "holds no PEM certificate"},
      {"CA directory missing", false, {.caDirectory = f("none")}, {}, false, "cannot be read"},
      {"mutual TLS without a certificate", true, trusted, {}, false},
      {"mutual TLS with one", true, withClient, {}, true},
      {"client key of another", true, strangersKey, {}, false, "does not belong to certificate"},
      {"client certificate missing", true, certificateGone, {}, false, "cannot be read"},
      {"https_proxy", false, trusted, envProxy, false, "", true},
      {"no_proxy bypasses it", false, trusted, both, true},
      {"the host's proxy wins over no_proxy", false, proxied, noProxy, false, "", true},
  };
  for (Row row : rows) {
    SCOPED_TRACE(row.name);
    testing::RawServer proxy("");
    const std::string proxyUrl = proxy.baseUrl();
    if (!row.settings.proxy.empty()) row.settings.proxy = proxyUrl;
    for (auto& [name, value] : row.environment) {
      setenv(name, value == "proxy" ? proxyUrl.c_str() : value.c_str(), 1);
    }
    platform().setNetworkSettings(row.settings);
    const auto problems = detail::networkSettingsProblems(row.settings);
    EXPECT_EQ(problems.size(), row.problem.empty() ? 0u : 1u);
    for (const auto& problem : problems) EXPECT_NE(problem.find(row.problem), std::string::npos);
    const std::string server =
        "127.0.0.1:" + std::to_string(row.mutualTls ? mutual.port : tls.port);
    std::string outcome;
    try {
      auto exchange =
          detail::ConsentNetworkManager().send({"https://" + server + "/ping", "GET", {}, {}});
      outcome = std::to_string(exchange.response ? exchange.response->statusCode : 0) + " " +
                exchange.body.value_or("");
    } catch (const detail::TransportError& error) {
      outcome = error.what();
    }
    EXPECT_EQ(outcome == "200 pong", row.served) << outcome;
    testing::loopback(std::stoi(proxyUrl.substr(17)), false);  // ends its wait if nobody came
    const std::string head = proxy.request();
    EXPECT_EQ(head.substr(0, head.find("\r\n")),
              row.proxied ? "CONNECT " + server + " HTTP/1.1" : "");
    for (const auto& [name, value] : row.environment) unsetenv(name);
  }

  // The document from nginx over TLS: nginx's ETag is stored ("<mtime
  // hex>-<size hex>" in quotes), sent back and answered with 304. What is
  // kept and logged is pinned against a scripted server in
  // CdnCacheTest.NotModifiedKeepsCacheAndTimestamp.
  const auto folder = www.path() / "consent/mobile_banner/t/a/live";
  std::filesystem::create_directories(folder);
  std::filesystem::copy_file(std::filesystem::path(PACTIVO_EXAMPLES_DIR) / "configuration.json",
                             folder / "config_en.json");
  platform().setNetworkSettings(trusted);
  setup({.cdnUrl = "https://127.0.0.1:" + std::to_string(tls.port) + "/"});
  ASSERT_EQ(sdk_->getStatus(), SDKStatus::available) << log_.text();
  const auto etag = UserDefaultManager::getETag();
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
