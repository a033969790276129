// Against a real content server: nginx makes the ETags and answers
// If-None-Match with 304 by itself.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "support/sdk_fixture.h"

namespace pactivo {
namespace {

using testing::TempDir;

int freeLoopbackPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

bool accepts(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return ok;
}

// nginx in the foreground on a free loopback port, serving `root`.
class Nginx {
 public:
  explicit Nginx(const std::filesystem::path& root) : port_(freeLoopbackPort()) {
    const std::filesystem::path& dir = dir_.path();
    std::filesystem::create_directories(dir / "logs");
    std::ofstream(dir / "nginx.conf")
        << "pid " << (dir / "nginx.pid").string() << ";\n"
        << "error_log " << (dir / "logs/error.log").string() << ";\n"
        << "events { worker_connections 16; }\n"
        << "http {\n"
        << "  access_log off;\n"
        << "  client_body_temp_path " << (dir / "body").string() << ";\n"
        << "  server {\n"
        << "    listen 127.0.0.1:" << port_ << ";\n"
        << "    root " << root.string() << ";\n"
        << "    etag on;\n"
        << "  }\n"
        << "}\n";
    pid_ = fork();
    if (pid_ == 0) {
      // nginx must not outlive a test that crashes, nor hold its output.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      int devnull = open("/dev/null", O_RDWR);
      dup2(devnull, STDOUT_FILENO);
      dup2(devnull, STDERR_FILENO);
      execl("/usr/sbin/nginx", "nginx", "-p", dir.c_str(), "-c", (dir / "nginx.conf").c_str(), "-g",
            "daemon off; master_process off;", static_cast<char*>(nullptr));
      _exit(127);
    }
    running_ = testing::eventually([this] { return accepts(port_); }, std::chrono::seconds(10));
  }
  ~Nginx() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  bool running() const { return running_; }
  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

 private:
  TempDir dir_;
  int port_;
  pid_t pid_ = -1;
  bool running_ = false;
};

class NginxTest : public testing::SdkTest {};

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
  ASSERT_TRUE(nginx.running());
  setup({.cdnUrl = nginx.baseUrl()});
  ASSERT_EQ(sdk_->getStatus(), SDKStatus::available) << log_.text();
  auto etag = UserDefaultManager::getETag();
  ASSERT_TRUE(etag);
  // nginx's form: "<mtime hex>-<size hex>" in quotes.
  EXPECT_EQ(etag->front(), '"');
  EXPECT_NE(etag->find('-'), std::string::npos);

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
