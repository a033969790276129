#include "support/test_support.h"

#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "pactivo/locale_utils.h"

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

FakePlatform::FakePlatform(std::filesystem::path dataDirectory)
    : dataDirectory_(std::move(dataDirectory)), pathChannel_(std::make_shared<PathChannel>()) {}

std::filesystem::path FakePlatform::applicationSupportDirectory() const { return dataDirectory_; }

std::vector<std::string> FakePlatform::preferredLanguages() const {
  std::lock_guard lock(mutex_);
  return languages_;
}

std::string FakePlatform::deviceName() const {
  std::lock_guard lock(mutex_);
  return deviceName_;
}

std::string FakePlatform::advertisingIdentifier() const {
  std::lock_guard lock(mutex_);
  return advertisingIdentifier_;
}

int FakePlatform::trackingAuthorizationStatus() const {
  std::lock_guard lock(mutex_);
  return trackingStatus_;
}

std::optional<std::string> FakePlatform::infoDictionaryString(const std::string& key) const {
  std::lock_guard lock(mutex_);
  auto it = info_.find(key);
  if (it == info_.end()) return std::nullopt;
  return it->second;
}

std::optional<std::string> FakePlatform::libraryVersion() const {
  std::lock_guard lock(mutex_);
  return libraryVersion_;
}

void FakePlatform::runOnMainThread(const std::function<void()>& work) {
  ++mainThreadCalls_;
  work();
}

std::string FakePlatform::localizedString(const std::string& key, const std::string&) const {
  std::lock_guard lock(mutex_);
  auto it = translations_.find(key);
  return it == translations_.end() ? key : it->second;
}

std::chrono::system_clock::time_point FakePlatform::now() const {
  return std::chrono::system_clock::time_point(std::chrono::seconds(now_.load()));
}

std::optional<int> FakePlatform::probe(const std::string& name) const {
  std::lock_guard lock(mutex_);
  if (!probeFailure_.empty()) throw std::runtime_error(probeFailure_);
  auto it = probes_.find(name);
  return it == probes_.end() ? std::nullopt : it->second;
}

std::optional<int> FakePlatform::locationAuthorizationStatus() const {
  return probe("locationAuthorizationStatus");
}
std::optional<int> FakePlatform::cameraAuthorizationStatus() const {
  return probe("cameraAuthorizationStatus");
}
std::optional<int> FakePlatform::microphoneAuthorizationStatus() const {
  return probe("microphoneAuthorizationStatus");
}
std::optional<int> FakePlatform::photoLibraryAuthorizationStatus() const {
  return probe("photoLibraryAuthorizationStatus");
}
std::optional<int> FakePlatform::photoLibraryAddOnlyAuthorizationStatus() const {
  return probe("photoLibraryAddOnlyAuthorizationStatus");
}
std::optional<int> FakePlatform::siriAuthorizationStatus() const {
  return probe("siriAuthorizationStatus");
}
std::optional<int> FakePlatform::healthDataAvailability() const {
  return probe("healthDataAvailability");
}
std::optional<int> FakePlatform::bluetoothAuthorization() const {
  return probe("bluetoothAuthorization");
}
std::optional<int> FakePlatform::speechRecognitionAuthorizationStatus() const {
  return probe("speechRecognitionAuthorizationStatus");
}
std::optional<int> FakePlatform::homeKitAuthorizationStatus() const {
  return probe("homeKitAuthorizationStatus");
}

void FakePlatform::requestNotificationAuthorizationStatus(
    std::function<void(int)> completion) const {
  std::optional<int> status;
  bool immediate;
  {
    std::lock_guard lock(mutex_);
    status = notificationStatus_;
    immediate = notificationImmediate_;
  }
  if (!status) return;
  if (immediate) {
    completion(*status);
  } else {
    std::thread([completion = std::move(completion), value = *status] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      completion(value);
    }).detach();
  }
}

bool FakePlatform::standardPreferenceBool(const std::string& key) const {
  {
    std::lock_guard lock(mutex_);
    auto it = standardPreferences_.find(key);
    if (it != standardPreferences_.end()) return it->second;
  }
  return Platform::standardPreferenceBool(key);
}

Platform::ConsentModeHandler FakePlatform::consentModeHandler() const {
  std::lock_guard lock(mutex_);
  return consentModeHandler_;
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
  ++monitorsMade_;
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

void FakePlatform::setProbe(const std::string& name, std::optional<int> value) {
  std::lock_guard lock(mutex_);
  probes_[name] = value;
}
void FakePlatform::setProbeFailure(std::string message) {
  std::lock_guard lock(mutex_);
  probeFailure_ = std::move(message);
}
void FakePlatform::setNotificationStatus(std::optional<int> status, bool immediate) {
  std::lock_guard lock(mutex_);
  notificationStatus_ = status;
  notificationImmediate_ = immediate;
}
void FakePlatform::setStandardPreference(std::string key, bool value) {
  std::lock_guard lock(mutex_);
  standardPreferences_[std::move(key)] = value;
}
void FakePlatform::setConsentModeHandler(ConsentModeHandler handler) {
  std::lock_guard lock(mutex_);
  consentModeHandler_ = std::move(handler);
}

void FakePlatform::setPreferredLanguages(std::vector<std::string> languages) {
  std::lock_guard lock(mutex_);
  languages_ = std::move(languages);
}
void FakePlatform::setDeviceName(std::string name) {
  std::lock_guard lock(mutex_);
  deviceName_ = std::move(name);
}
void FakePlatform::setAdvertisingIdentifier(std::string id) {
  std::lock_guard lock(mutex_);
  advertisingIdentifier_ = std::move(id);
}
void FakePlatform::setTrackingAuthorizationStatus(int status) {
  std::lock_guard lock(mutex_);
  trackingStatus_ = status;
}
void FakePlatform::setInfo(std::string key, std::string value) {
  std::lock_guard lock(mutex_);
  info_[std::move(key)] = std::move(value);
}
void FakePlatform::setLibraryVersion(std::optional<std::string> version) {
  std::lock_guard lock(mutex_);
  libraryVersion_ = std::move(version);
}
void FakePlatform::setTranslation(std::string key, std::string text) {
  std::lock_guard lock(mutex_);
  translations_[std::move(key)] = std::move(text);
}
void FakePlatform::setNow(std::int64_t seconds) { now_ = seconds; }
void FakePlatform::advance(std::int64_t seconds) { now_ += seconds; }

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
  std::lock_guard lock(mutex_);
  std::string all;
  for (const auto& message : messages_) all += message;
  return all;
}

std::vector<std::string> LogCapture::messages() const {
  std::lock_guard lock(mutex_);
  return messages_;
}

bool LogCapture::contains(const std::string& fragment) const {
  return text().find(fragment) != std::string::npos;
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

}  // namespace pactivo::testing
