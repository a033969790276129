#include "support/test_support.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <fstream>
#include <sstream>
#include <thread>

#include "pactivo/locale_utils.h"
#include "persistence/preference_store.h"

namespace pactivo::testing {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "pactivo-test-XXXXXX").string();
  char* created = mkdtemp(pattern.data());
  if (created == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = created;
}

TempDir::~TempDir() {
  std::error_code ec;
  // A test may have made parts read-only; give them back before removal.
  for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
       it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
  }
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ec);
  std::filesystem::remove_all(path_, ec);
}

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

Nginx::Nginx(const std::filesystem::path& root, const std::string& tls) {
  const std::string dir = temp.path().string();
  std::filesystem::create_directories(temp.path() / "logs");
  std::ofstream(dir + "/nginx.conf")
      << "pid " << dir << "/nginx.pid;\nerror_log " << dir << "/logs/error.log;\n"
      << "events { worker_connections 16; }\nhttp {\n  access_log off;\n"
      << "  client_body_temp_path " << dir << "/body;\n"
      << "  server { listen 127.0.0.1:" << port << (tls.empty() ? "" : " ssl") << "; root "
      << root.string() << "; etag on; " << tls << " }\n}\n";
  program = std::make_unique<Program>(std::vector<std::string>{"/usr/sbin/nginx", "-p", dir, "-c",
                                                               dir + "/nginx.conf", "-g",
                                                               "daemon off; master_process off;"});
  eventually([this] { return loopback(port, false) == port; });
}

FakePlatform::FakePlatform(std::filesystem::path dataDirectory)
    : dataDirectory_(std::move(dataDirectory)), pathChannel_(std::make_shared<PathChannel>()) {}

void FakePlatform::runOnMainThread(const std::function<void()>& work) {
  ++mainThreadCalls_;
  work();
}

std::optional<int> FakePlatform::probe(const std::string& name) const {
  if (std::string failure = get(probeFailure_); !failure.empty()) {
    throw std::runtime_error(failure);
  }
  return find(probes_, name).value_or(std::nullopt);
}

void FakePlatform::requestNotificationAuthorizationStatus(
    std::function<void(int)> completion) const {
  const auto [status, immediate] = get(notification_);
  if (!status) return;
  if (immediate) return completion(*status);
  std::thread([completion = std::move(completion), value = *status] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    completion(value);
  }).detach();
}

bool FakePlatform::standardPreferenceBool(const std::string& key) const {
  const std::optional<bool> set = find(standardPreferences_, key);
  return set ? *set : Platform::standardPreferenceBool(key);
}

// What the facade's monitor and the test share: the handler of the monitor
// that is started and not cancelled.
struct FakePlatform::PathChannel {
  std::mutex mutex;
  std::function<void(NetworkPathStatus)> handler;
  const void* owner = nullptr;
};

namespace {

class ScriptedPathMonitor : public NetworkPathMonitor {
 public:
  explicit ScriptedPathMonitor(std::shared_ptr<FakePlatform::PathChannel> channel)
      : channel_(std::move(channel)) {}
  ~ScriptedPathMonitor() override { cancel(); }
  void start(std::function<void(NetworkPathStatus)> handler) override {
    std::lock_guard lock(channel_->mutex);
    channel_->handler = std::move(handler);
    channel_->owner = this;
  }
  // Only the monitor that listens now stops the listening.
  void cancel() override {
    std::lock_guard lock(channel_->mutex);
    if (channel_->owner != this) return;
    channel_->handler = nullptr;
    channel_->owner = nullptr;
  }

 private:
  std::shared_ptr<FakePlatform::PathChannel> channel_;
};

}  // namespace

std::unique_ptr<NetworkPathMonitor> FakePlatform::makeNetworkPathMonitor() const {
  return std::make_unique<ScriptedPathMonitor>(pathChannel_);
}

bool FakePlatform::reportPath(NetworkPathStatus status) {
  // Delivered under the channel's lock, so cancel() waits for a delivery in
  // progress, as a real monitor's does.
  std::lock_guard lock(pathChannel_->mutex);
  if (!pathChannel_->handler) return false;
  pathChannel_->handler(status);
  return true;
}

ManualClock::TimePoint ManualClock::now() {
  std::lock_guard lock(mutex_);
  return now_;
}

bool ManualClock::sleepUntil(TimePoint deadline, std::stop_token stop) {
  std::unique_lock lock(mutex_);
  ++sleepers_;
  changed_.notify_all();
  bool reached = changed_.wait(lock, stop, [&] { return now_ >= deadline; });
  --sleepers_;
  return reached && !stop.stop_requested();
}

void ManualClock::advance(std::chrono::seconds by) {
  std::lock_guard lock(mutex_);
  now_ += by;
  changed_.notify_all();
}

int ManualClock::sleepers() {
  std::lock_guard lock(mutex_);
  return sleepers_;
}

ScopedPlatform::ScopedPlatform()
    : dataDirectory_(dir_.path() / "data"),
      platform_(std::make_shared<FakePlatform>(dataDirectory_)) {
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

LogCapture::~LogCapture() { SDKLogger::shared().setSink(nullptr); }

std::string LogCapture::text() const {
  std::string all;
  for (const auto& message : messages()) all += message;
  return all;
}

std::vector<std::string> LogCapture::messages() const {
  std::lock_guard lock(mutex_);
  return messages_;
}

bool LogCapture::contains(const std::string& fragment) const {
  return text().find(fragment) != std::string::npos;
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
  std::ifstream in(std::filesystem::path(PACTIVO_EXAMPLES_DIR) / "configuration.json",
                   std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return condition();
}

int runInChild(const std::function<int()>& body, std::string* log) {
  detail::resetCurrentStore();
  int logPipe[2];
  if (pipe(logPipe) != 0) return -1;
  pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    close(logPipe[0]);
    SDKLogger::shared().setSink([fd = logPipe[1]](std::string_view text) {
      if (write(fd, text.data(), text.size()) < 0) _exit(3);
    });
    _exit(body());
  }
  close(logPipe[1]);
  char buffer[4096];
  ssize_t n;
  while ((n = read(logPipe[0], buffer, sizeof buffer)) > 0) {
    if (log != nullptr) log->append(buffer, static_cast<std::size_t>(n));
  }
  close(logPipe[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return status;
}

}  // namespace pactivo::testing
