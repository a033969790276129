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

// Binds (port 0: any free one) or connects a loopback socket; the port, or -1.
int loopback(int port, bool bindIt) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  bool ok = bindIt ? bind(fd, raw, length) == 0 && getsockname(fd, raw, &length) == 0
                   : connect(fd, raw, length) == 0;
  close(fd);
  return ok ? ntohs(address.sin_port) : -1;
}

// nginx in the foreground on a free loopback port, serving `root`, until
// the object goes.
struct Nginx {
  explicit Nginx(const std::filesystem::path& root) {
    const std::string dir = temp.path().string();
    std::filesystem::create_directories(temp.path() / "logs");
    std::ofstream(dir + "/nginx.conf")
        << "pid " << dir << "/nginx.pid;\nerror_log " << dir << "/logs/error.log;\n"
        << "events { worker_connections 16; }\nhttp {\n  access_log off;\n"
        << "  client_body_temp_path " << dir << "/body;\n"
        << "  server { listen 127.0.0.1:" << port << "; root " << root.string()
        << "; etag on; }\n}\n";
    pid = fork();
    if (pid == 0) {
      // nginx must not outlive a test that crashes, nor hold its output.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      int devnull = open("/dev/null", O_WRONLY);
      dup2(devnull, STDOUT_FILENO);
      dup2(devnull, STDERR_FILENO);
      execl("/usr/sbin/nginx", "nginx", "-p", dir.c_str(), "-c", (dir + "/nginx.conf").c_str(),
            "-g", "daemon off; master_process off;", static_cast<char*>(nullptr));
      _exit(127);
    }
  }
  ~Nginx() {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
  TempDir temp;
  int port = loopback(0, true);
  pid_t pid = -1;
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
  ASSERT_TRUE(testing::eventually([&] { return loopback(nginx.port, false) == nginx.port; }));
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
