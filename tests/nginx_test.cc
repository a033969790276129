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

// A CONNECT proxy that writes each request line it receives to a file.
constexpr const char* kRecordingProxy = R"(import socket, sys, threading
port, record = int(sys.argv[1]), sys.argv[2]
def pipe(a, b):
    try:
        while data := a.recv(65536):
            b.sendall(data)
    except OSError:
        pass
    finally:
        try: b.shutdown(socket.SHUT_WR)
        except OSError: pass
def serve(client):
    head = b""
    while b"\r\n\r\n" not in head:
        chunk = client.recv(4096)
        if not chunk: return
        head += chunk
    line = head.split(b"\r\n")[0].decode()
    with open(record, "a") as f: f.write(line + "\n")
    host, _, target = line.split()[1].rpartition(":")
    upstream = socket.create_connection((host, int(target)))
    client.sendall(b"HTTP/1.1 200 Connection established\r\n\r\n")
    threading.Thread(target=pipe, args=(upstream, client), daemon=True).start()
    pipe(client, upstream)
server = socket.create_server(("127.0.0.1", port))
while True:
    threading.Thread(target=serve, args=(server.accept()[0],), daemon=True).start()
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
    if (!std::filesystem::exists(tool)) {
      GTEST_SKIP() << tool << " is not installed (scripts/install-deps.sh installs it)";
    }
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

  const NetworkSettings trusted{.caFile = file("ca.pem")};
  const NetworkSettings withClient{.caFile = file("ca.pem"),
                                   .clientCertificate = file("client.pem"),
                                   .clientKey = file("client.key")};
  struct Row {
    const char* name;
    bool mutualTls;
    NetworkSettings settings;
    std::vector<std::pair<const char*, std::string>> environment;
    bool served;
    std::string problem;       // what setup reports; empty: nothing
    std::string proxyRecords;  // the request lines the proxy saw
  };
  const std::string connect = "CONNECT 127.0.0.1:" + std::to_string(tls.port) + " HTTP/1.1\n";
  const Row rows[] = {
      {"system store only: private CA refused", false, {}, {}, false, "", ""},
      {"CA file", false, trusted, {}, true, "", ""},
      {"CA directory", false, {.caDirectory = file("cadir")}, {}, true, "", ""},
      {"SSL_CERT_FILE", false, {}, {{"SSL_CERT_FILE", file("ca.pem").string()}}, true, "", ""},
      {"SSL_CERT_DIR", false, {}, {{"SSL_CERT_DIR", file("cadir").string()}}, true, "", ""},
      {"the host's CA file replaces SSL_CERT_FILE",
       false,
       {.caFile = file("client.pem")},
       {{"SSL_CERT_FILE", file("ca.pem").string()}},
       false,
       "",
       ""},
      {"CA file that is not PEM",
       false,
       {.caFile = file("junk.pem")},
       {},
       false,
       "holds no PEM certificate",
       ""},
      {"CA directory missing",
       false,
       {.caDirectory = file("none")},
       {},
       false,
       "cannot be read",
       ""},
      {"mutual TLS without a certificate", true, trusted, {}, false, "", ""},
      {"mutual TLS with one", true, withClient, {}, true, "", ""},
      {"client key of another",
       true,
       {.caFile = file("ca.pem"),
        .clientCertificate = file("client.pem"),
        .clientKey = file("stranger.key")},
       {},
       false,
       "does not belong to certificate",
       ""},
      {"client certificate missing",
       true,
       {.caFile = file("ca.pem"),
        .clientCertificate = file("gone.pem"),
        .clientKey = file("client.key")},
       {},
       false,
       "cannot be read",
       ""},
      {"https_proxy", false, trusted, {{"https_proxy", proxyUrl}}, true, "", connect},
      {"no_proxy bypasses it",
       false,
       trusted,
       {{"https_proxy", proxyUrl}, {"no_proxy", "127.0.0.1"}},
       true,
       "",
       ""},
      {"the host's proxy wins over no_proxy",
       false,
       {.caFile = file("ca.pem"), .proxy = proxyUrl},
       {{"no_proxy", "127.0.0.1"}},
       true,
       "",
       connect},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove(record);
    for (const auto& [name, value] : row.environment) setenv(name, value.c_str(), 1);
    platform().setNetworkSettings(row.settings);
    const auto problems = detail::networkSettingsProblems(row.settings);
    if (row.problem.empty()) {
      EXPECT_TRUE(problems.empty()) << problems.front();
    } else {
      ASSERT_EQ(problems.size(), 1u);
      EXPECT_NE(problems[0].find(row.problem), std::string::npos) << problems[0];
    }
    detail::URLRequest request;
    request.method = "GET";
    request.url =
        "https://127.0.0.1:" + std::to_string(row.mutualTls ? mutual.port : tls.port) + "/ping";
    std::string outcome;
    try {
      auto exchange = detail::ConsentNetworkManager().send(request);
      outcome = std::to_string(exchange.response ? exchange.response->statusCode : 0) + " " +
                exchange.body.value_or("");
    } catch (const detail::TransportError& error) {
      outcome = error.what();
    }
    if (row.served) {
      EXPECT_EQ(outcome, "200 pong");
    } else {
      EXPECT_NE(outcome.rfind("200", 0), 0u) << outcome;
    }
    std::ifstream seen(record);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(seen), {}), row.proxyRecords);
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

TEST_F(NginxTest, StoresNginxETagAndKeepsCacheOn304) {
  if (!std::filesystem::exists("/usr/sbin/nginx")) {
    GTEST_SKIP() << "nginx is not installed (scripts/install-deps.sh installs it)";
  }
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
  auto document = impl_.getCDNFile();
  ASSERT_TRUE(document);
  EXPECT_EQ(document->version, 3);
  EXPECT_TRUE(log_.contains("getCDNFile() - CDN Configuration is up to date")) << log_.text();
  EXPECT_EQ(UserDefaultManager::getInt64(keys::kCdnCachedTimestamp, 0), 1700000000);
  EXPECT_EQ(UserDefaultManager::getETag(), etag);
}

}  // namespace
}  // namespace pactivo
