// Shared pieces of the tests: a temporary directory, a fake platform at the
// system edge, a manual clock, and a capture of the log. Free of GoogleTest,
// so the benchmarks use them too.
#ifndef PACTIVO_TESTS_SUPPORT_TEST_SUPPORT_H_
#define PACTIVO_TESTS_SUPPORT_TEST_SUPPORT_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "pactivo/logger.h"
#include "pactivo/platform.h"
#include "runtime/scheduler.h"

namespace pactivo::testing {

// A fresh directory, removed with everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Binds (port 0: any free one) or connects a loopback socket; the port, or -1.
int loopback(int port, bool bindIt);
// The same, keeping the socket open: returns it, with `port` set as above.
int loopbackSocket(int& port, bool bindIt);

// A program (found on the PATH) in the foreground until the object goes;
// it dies with the test, and its output is discarded.
class Program {
 public:
  explicit Program(std::vector<std::string> argv);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

 private:
  int pid_ = -1;
};

// nginx on a free loopback port, serving `root`, until the object goes; over
// TLS when `tls` holds its directives. Made once it accepts connections (or
// after ten seconds).
struct Nginx {
  explicit Nginx(const std::filesystem::path& root, const std::string& tls = "");
  TempDir temp;
  int port = loopback(0, true);
  std::unique_ptr<Program> program;
};

// A platform whose every answer the test sets. Wall-clock time stands still
// unless the test moves it.
class FakePlatform : public Platform {
 public:
  explicit FakePlatform(std::filesystem::path dir) : dataDirectory_(std::move(dir)) {}

  std::filesystem::path applicationSupportDirectory() const override { return dataDirectory_; }
  std::vector<std::string> preferredLanguages() const override { return get(languages_); }
  std::string deviceName() const override { return "Test Device"; }
  std::string advertisingIdentifier() const override { return get(advertisingIdentifier_); }
  int trackingAuthorizationStatus() const override { return get(trackingStatus_); }
  std::optional<std::string> infoDictionaryString(const std::string& key) const override {
    return get(info_)[key];
  }
  std::optional<std::string> libraryVersion() const override { return get(libraryVersion_); }
  void runOnMainThread(const std::function<void()>& work) override {
    ++mainThreadCalls_;
    work();
  }
  std::string localizedString(const std::string& key, const std::string&) const override {
    return get(translations_)[key].value_or(key);
  }
  std::chrono::system_clock::time_point now() const override {
    return std::chrono::system_clock::time_point(std::chrono::seconds(now_.load()));
  }
  // Each probe answers what setProbe() gave under its name.
#define PACTIVO_FAKE_PROBE(name) \
  std::optional<int> name() const override { return probe(#name); }
  PACTIVO_FAKE_PROBE(locationAuthorizationStatus)
  PACTIVO_FAKE_PROBE(cameraAuthorizationStatus)
  PACTIVO_FAKE_PROBE(microphoneAuthorizationStatus)
  PACTIVO_FAKE_PROBE(photoLibraryAuthorizationStatus)
  PACTIVO_FAKE_PROBE(photoLibraryAddOnlyAuthorizationStatus)
  PACTIVO_FAKE_PROBE(siriAuthorizationStatus)
  PACTIVO_FAKE_PROBE(healthDataAvailability)
  PACTIVO_FAKE_PROBE(bluetoothAuthorization)
  PACTIVO_FAKE_PROBE(speechRecognitionAuthorizationStatus)
  PACTIVO_FAKE_PROBE(homeKitAuthorizationStatus)
#undef PACTIVO_FAKE_PROBE
  void requestNotificationAuthorizationStatus(std::function<void(int)> completion) const override;
  bool standardPreferenceBool(const std::string& key) const override {
    return get(standardPreferences_)[key].value_or(Platform::standardPreferenceBool(key));
  }
  ConsentModeHandler consentModeHandler() const override { return get(consentModeHandler_); }
  std::string applicationName() const override { return "Fake TV"; }
  NetworkSettings networkSettings() const override { return get(network_); }
  // A monitor that reports what the test passes to reportPath().
  std::unique_ptr<NetworkPathMonitor> makeNetworkPathMonitor() const override;

  // Delivers `status` to the handler of the live monitor, if any; returns
  // whether one was listening.
  bool reportPath(NetworkPathStatus status);

  // What the monitors and reportPath() share: the monitor started and not
  // cancelled, with its handler.
  struct PathChannel {
    std::mutex mutex;
    std::pair<const void*, std::function<void(NetworkPathStatus)>> listener;
  };

  // The answer of the probe named like its method ("cameraAuthorizationStatus");
  // nullopt (the default) reports the facility as absent.
  void setProbe(const std::string& name, std::optional<int> v) { put(probes_, name, v); }
  // Makes every probe throw std::runtime_error(message); empty stops it.
  void setProbeFailure(std::string message) { set(probeFailure_, std::move(message)); }
  // The notification probe's answer, given to the completion before the
  // request returns when `immediate`, else on another thread later.
  void setNotificationStatus(std::optional<int> status, bool immediate) {
    set(notification_, std::pair(status, immediate));
  }
  void setStandardPreference(std::string key, bool v) { put(standardPreferences_, key, v); }
  void setConsentModeHandler(ConsentModeHandler h) { set(consentModeHandler_, std::move(h)); }
  void setPreferredLanguages(std::vector<std::string> v) { set(languages_, std::move(v)); }
  void setAdvertisingIdentifier(std::string id) { set(advertisingIdentifier_, std::move(id)); }
  void setTrackingAuthorizationStatus(int status) { set(trackingStatus_, status); }
  void setInfo(std::string key, std::string value) { put(info_, key, std::move(value)); }
  void setLibraryVersion(std::optional<std::string> v) { set(libraryVersion_, std::move(v)); }
  void setTranslation(std::string key, std::string text) { put(translations_, key, text); }
  void setNetworkSettings(NetworkSettings settings) { set(network_, std::move(settings)); }
  // Seconds since 1970.
  void setNow(std::int64_t seconds) { now_ = seconds; }
  void advance(std::int64_t seconds) { now_ += seconds; }
  int mainThreadCalls() const { return mainThreadCalls_.load(); }

 private:
  template <typename T>
  T get(const T& field) const {
    std::lock_guard lock(mutex_);
    return field;
  }
  template <typename T, typename V>
  void set(T& field, V&& value) {
    std::lock_guard lock(mutex_);
    field = std::forward<V>(value);
  }
  template <typename Map, typename V>
  void put(Map& map, const std::string& key, V&& value) {
    std::lock_guard lock(mutex_);
    map[key] = std::forward<V>(value);
  }
  std::optional<int> probe(const std::string& name) const;

  const std::filesystem::path dataDirectory_;
  mutable std::mutex mutex_;
  std::vector<std::string> languages_{"en-US"};
  std::string advertisingIdentifier_;
  int trackingStatus_ = 0;
  // Absent keys read as nullopt.
  std::map<std::string, std::optional<std::string>> info_;
  std::optional<std::string> libraryVersion_ = "9.8.7";
  std::map<std::string, std::optional<std::string>> translations_;
  std::atomic<std::int64_t> now_{1700000000};
  std::atomic<int> mainThreadCalls_{0};
  std::map<std::string, std::optional<int>> probes_;
  std::string probeFailure_;
  std::pair<std::optional<int>, bool> notification_;  // status, immediate
  std::map<std::string, std::optional<bool>> standardPreferences_;
  ConsentModeHandler consentModeHandler_;
  NetworkSettings network_;
  std::shared_ptr<PathChannel> pathChannel_ = std::make_shared<PathChannel>();
};

// A clock that moves only when the test says so.
class ManualClock : public detail::Clock {
 public:
  TimePoint now() override { return now_; }
  bool sleepUntil(TimePoint deadline, std::stop_token stop) override;
  void advance(std::chrono::seconds by);
  // How many threads wait on the clock.
  int sleepers() { return sleepers_; }

 private:
  // Both change under mutex_, so no waiter misses a change.
  std::mutex mutex_;
  std::condition_variable_any changed_;
  std::atomic<TimePoint> now_{};
  std::atomic<int> sleepers_ = 0;
};

// Installs a FakePlatform over a fresh directory for the lifetime of the
// object, with the language code and log level reset, and restores the
// default platform afterwards.
class ScopedPlatform {
 public:
  ScopedPlatform();
  ~ScopedPlatform();
  FakePlatform& platform() { return *platform_; }
  // The platform's application-support directory (not created up front).
  const std::filesystem::path& dataDirectory() const { return dataDirectory_; }

 private:
  TempDir dir_;
  std::filesystem::path dataDirectory_ = dir_.path() / "data";
  std::shared_ptr<FakePlatform> platform_ = std::make_shared<FakePlatform>(dataDirectory_);
};

// Collects what the logger prints while it lives.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture() { SDKLogger::shared().setSink(nullptr); }
  std::string text() const;
  // The printed messages, each possibly several lines.
  std::vector<std::string> messages() const;
  bool contains(const std::string& part) const { return text().find(part) != std::string::npos; }
  // How many messages contain `fragment`.
  std::size_t count(const std::string& fragment) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
};

// The text of examples/configuration.json.
std::string exampleDocument();

// Polls `condition` until it holds or `timeout` passes.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Runs `body` in a forked child whose log goes to `log`; the child's exit
// status as waitpid() reports it. The preference store is closed first: no
// SQLite connection may cross a fork.
int runInChild(const std::function<int()>& body, std::string* log = nullptr);

}  // namespace pactivo::testing

#endif  // PACTIVO_TESTS_SUPPORT_TEST_SUPPORT_H_
