#include "support/test_support.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <thread>

#include "pactivo/locale_utils.h"
#include "persistence/preference_store.h"

namespace pactivo::testing {

namespace fs = std::filesystem;

TempDir::TempDir() {
  std::string pattern = (fs::temp_directory_path() / "pactivo-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  // A test may have made parts read-only; give them back, each directory
  // before the walk enters it, before removal.
  fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
  for (fs::recursive_directory_iterator it(path_, ec), end; it != end; it.increment(ec)) {
    fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::remove_all(path_, ec);
}

int loopbackSocket(int& port, bool bindIt) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  bool ok = bindIt ? bind(fd, raw, length) == 0 && getsockname(fd, raw, &length) == 0
                   : connect(fd, raw, length) == 0;
  port = ok ? ntohs(address.sin_port) : -1;
  return fd;
}

int loopback(int port, bool bindIt) {
  close(loopbackSocket(port, bindIt));
  return port;
}

Program::Program(std::vector<std::string> argv) {
  pid_ = fork();
  if (pid_ != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  int devnull = open("/dev/null", O_WRONLY);
  dup2(devnull, STDOUT_FILENO);
  dup2(devnull, STDERR_FILENO);
  std::vector<char*> args;
  for (auto& word : argv) args.push_back(word.data());
  args.push_back(nullptr);
  execvp(args[0], args.data());
  _exit(127);
}

Program::~Program() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

Nginx::Nginx(const fs::path& root, const std::string& tls) {
  const std::string dir = temp.path().string();
  fs::create_directories(temp.path() / "logs");
  std::ofstream(dir + "/nginx.conf")
      << "daemon off;\nmaster_process off;\npid " << dir << "/nginx.pid;\n"
      << "error_log " << dir << "/logs/error.log;\nevents { worker_connections 16; }\n"
      << "http {\n  access_log off;\n  client_body_temp_path " << dir << "/body;\n"
      << "  server { listen 127.0.0.1:" << port << (tls.empty() ? "" : " ssl") << "; root "
      << root.string() << "; etag on; " << tls << " }\n}\n";
  program = std::make_unique<Program>(
      std::vector<std::string>{"/usr/sbin/nginx", "-p", dir, "-c", dir + "/nginx.conf"});
  eventually([this] { return loopback(port, false) == port; });
}

std::optional<int> FakePlatform::probe(const std::string& name) const {
  if (auto failure = get(probeFailure_); !failure.empty()) throw std::runtime_error(failure);
  return get(probes_)[name];
}

void FakePlatform::requestNotificationAuthorizationStatus(std::function<void(int)> done) const {
  const auto [status, immediate] = get(notification_);
  if (!status) return;
  if (immediate) return done(*status);
  std::thread([done = std::move(done), value = *status] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    done(value);
  }).detach();
}

namespace {

struct ScriptedPathMonitor : NetworkPathMonitor {
  explicit ScriptedPathMonitor(std::shared_ptr<FakePlatform::PathChannel> c) : channel(c) {}
  ~ScriptedPathMonitor() override { cancel(); }
  void start(std::function<void(NetworkPathStatus)> handler) override {
    std::lock_guard lock(channel->mutex);
    channel->listener = {this, std::move(handler)};
  }
  // Only the monitor that listens now stops the listening.
  void cancel() override {
    std::lock_guard lock(channel->mutex);
    if (channel->listener.first == this) channel->listener = {};
  }
  const std::shared_ptr<FakePlatform::PathChannel> channel;
};

}  // namespace

std::unique_ptr<NetworkPathMonitor> FakePlatform::makeNetworkPathMonitor() const {
  return std::make_unique<ScriptedPathMonitor>(pathChannel_);
}

bool FakePlatform::reportPath(NetworkPathStatus status) {
  // Delivered under the channel's lock, so cancel() waits for a delivery in
  // progress, as a real monitor's does.
  std::lock_guard lock(pathChannel_->mutex);
  if (!pathChannel_->listener.second) return false;
  pathChannel_->listener.second(status);
  return true;
}

bool ManualClock::sleepUntil(TimePoint deadline, std::stop_token stop) {
  std::unique_lock lock(mutex_);
  ++sleepers_;
  bool reached = changed_.wait(lock, stop, [&] { return now_.load() >= deadline; });
  --sleepers_;
  return reached && !stop.stop_requested();
}

void ManualClock::advance(std::chrono::seconds by) {
  std::lock_guard lock(mutex_);
  now_ = now_.load() + by;
  changed_.notify_all();
}

ScopedPlatform::ScopedPlatform() {
  installPlatform(platform_);
  LocaleUtils::setCurrentLanguageCode("en");
  SDKLogger::shared().setLogLevel(LogLevel::debug);
}

ScopedPlatform::~ScopedPlatform() {
  installPlatform(nullptr);
  SDKLogger::shared().setLogLevel(LogLevel::debug);
}

LogCapture::LogCapture() {
  SDKLogger::shared().setSink([this](std::string_view text) {
    std::lock_guard lock(mutex_);
    messages_.emplace_back(text);
  });
}

std::string LogCapture::text() const {
  std::string all;
  for (const auto& message : messages()) all += message;
  return all;
}

std::vector<std::string> LogCapture::messages() const {
  std::lock_guard lock(mutex_);
  return messages_;
}

std::size_t LogCapture::count(const std::string& fragment) const {
  std::size_t n = 0;
  for (const auto& message : messages()) n += message.find(fragment) != std::string::npos;
  return n;
}

void LogCapture::clear() {
  std::lock_guard lock(mutex_);
  messages_.clear();
}

std::string exampleDocument() {
  std::ifstream in(fs::path(PACTIVO_EXAMPLES_DIR) / "configuration.json");
  return {std::istreambuf_iterator<char>(in), {}};
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  for (auto end = std::chrono::steady_clock::now() + timeout; !condition();) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

int runInChild(const std::function<int()>& body, std::string* log) {
  detail::resetCurrentStore();
  // The child's log goes to a file both share, read once the child is gone.
  std::FILE* file = std::tmpfile();
  if (file == nullptr) return -1;
  const pid_t child = fork();
  if (child == 0) {
    SDKLogger::shared().setSink([fd = fileno(file)](std::string_view text) {
      if (write(fd, text.data(), text.size()) < 0) _exit(3);
    });
    _exit(body());
  }
  int status = -1;
  if (child > 0) waitpid(child, &status, 0);
  std::rewind(file);
  for (int c; log != nullptr && (c = std::fgetc(file)) != EOF;) *log += static_cast<char>(c);
  std::fclose(file);
  return status;
}

}  // namespace pactivo::testing
