// The platform layer: every facility of the host system that the library
// uses, behind one interface that a host may implement.
//
// A host that is happy with the defaults does nothing: the library uses a
// LinuxPlatform for the running program. A host that wants to place the data
// elsewhere, report a device name of its own, or run callbacks on its UI
// thread installs its platform before setup:
//
//   auto platform = std::make_shared<pactivo::LinuxPlatform>(
//       pactivo::LinuxPlatform::Settings{.applicationName = "com.example.tv"});
//   pactivo::installPlatform(platform);
//   pactivo::ConsentSDK::shared().setup(options);
//
// Threading: the library calls a platform from any of its threads at once, so
// an implementation must be safe for concurrent calls.
#ifndef PACTIVO_PLATFORM_H_
#define PACTIVO_PLATFORM_H_

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pactivo/export.h"

namespace pactivo {

// Reachability of the network, as a path monitor reports it.
enum class NetworkPathStatus {
  satisfied,           // a usable route to the network exists
  unsatisfied,         // no usable route
  requiresConnection,  // usable once a connection is brought up (on demand)
};

// Watches network reachability. Made by the platform, owned by the facade.
class PACTIVO_EXPORT NetworkPathMonitor {
 public:
  virtual ~NetworkPathMonitor();
  // Starts calling `handler` with the current status and then with each
  // change, one call at a time on the monitor's own thread. Called once.
  virtual void start(std::function<void(NetworkPathStatus)> handler) = 0;
  // Stops the updates; when it returns no handler call is running or will
  // run. Called from any thread but the monitor's own.
  virtual void cancel() = 0;
};

// How the library reaches its servers inside an operator's network. Every
// member is optional; an empty one leaves libcurl's default in place.
//
// Trust: `caFile` (a PEM bundle) and `caDirectory` (PEM files under OpenSSL's
// hashed names, as `openssl rehash` makes them) REPLACE the system's store of
// trusted authorities rather than add to it; a host that needs both lists
// both in its bundle. When neither is set, the SSL_CERT_FILE and SSL_CERT_DIR
// environment variables are honoured as OpenSSL programs honour them, and
// without those the system store applies. Server verification is always on:
// no setting turns it off.
//
// Mutual TLS: `clientCertificate` and `clientKey` are PEM files (the key not
// encrypted); a certificate file that also holds its key may stand alone.
// Both are checked once at setup, and an unreadable, malformed or mismatched
// pair is logged there as an error.
//
// Proxy: `proxy` ("http://proxy.example:3128") carries every request and wins
// over the environment. Without it libcurl's own handling of http_proxy,
// https_proxy (lower case; HTTPS_PROXY too) and no_proxy applies.
struct NetworkSettings {
  std::filesystem::path caFile{};
  std::filesystem::path caDirectory{};
  std::filesystem::path clientCertificate{};
  std::filesystem::path clientKey{};
  std::string proxy{};
};

class PACTIVO_EXPORT Platform {
 public:
  virtual ~Platform();

  // The per-application data directory (the "application-support
  // directory"); the preference suite and the cached configuration live
  // directly in it. An empty path means there is none.
  virtual std::filesystem::path applicationSupportDirectory() const = 0;

  // The user's preferred languages, most preferred first, as BCP 47 tags
  // ("de-DE"). Never empty.
  virtual std::vector<std::string> preferredLanguages() const = 0;

  // The name of this device, as a user would recognise it.
  virtual std::string deviceName() const = 0;

  // The advertising identifier as upper-case UUID text, or "" where the
  // system has none.
  virtual std::string advertisingIdentifier() const = 0;

  // Tracking authorization: 0 not determined, 1 restricted, 2 denied,
  // 3 authorized.
  virtual int trackingAuthorizationStatus() const = 0;

  // A string value of the host's information dictionary (declared usage
  // descriptions and the like), or nullopt when the key is absent.
  virtual std::optional<std::string> infoDictionaryString(const std::string& key) const = 0;

  // The library version reported in logs and uploads; nullopt when unknown.
  virtual std::optional<std::string> libraryVersion() const = 0;

  // The host application's name, sent in every request's User-Agent
  // ("Pactivo/<version> (Linux; <name>/<CFBundleShortVersionString>)"). The
  // default is the running program's file name.
  virtual std::string applicationName() const;

  // Trust, client certificate and proxy for every request; see
  // NetworkSettings. The default sets nothing.
  virtual NetworkSettings networkSettings() const;

  // Runs `work` on the host's main thread and returns once it has run. The
  // library waits for it, so the host's main thread must keep running while
  // the library is alive.
  virtual void runOnMainThread(const std::function<void()>& work) = 0;

  // The host's translation of a message key; the key itself when there is
  // none. `comment` is the translator's note.
  virtual std::string localizedString(const std::string& key, const std::string& comment) const = 0;

  // Wall-clock time: consent timestamps and cache freshness derive from it.
  virtual std::chrono::system_clock::time_point now() const = 0;

  // ---- Permission probes ----
  //
  // Each returns the platform's integer status for one device permission, or
  // nullopt when the facility does not exist here (the library then reports
  // the permission as not determined). The defaults report every facility as
  // absent. A probe may throw; the library logs the error and reads the
  // permission as not determined.

  // Location: 0 not determined, 1 restricted, 2 denied, 3 always, 4 when in use.
  virtual std::optional<int> locationAuthorizationStatus() const;
  // Camera (video) and microphone (audio): 0 not determined, 1 restricted,
  // 2 denied, 3 authorized.
  virtual std::optional<int> cameraAuthorizationStatus() const;
  virtual std::optional<int> microphoneAuthorizationStatus() const;
  // Photo library, full and add-only: as the camera, plus 4 limited.
  virtual std::optional<int> photoLibraryAuthorizationStatus() const;
  virtual std::optional<int> photoLibraryAddOnlyAuthorizationStatus() const;
  // Voice assistant: as the camera.
  virtual std::optional<int> siriAuthorizationStatus() const;
  // Health data: non-zero when the device has health data at all.
  virtual std::optional<int> healthDataAvailability() const;
  // Bluetooth: 0 not determined, 1 restricted, 2 denied, 3 allowed always.
  virtual std::optional<int> bluetoothAuthorization() const;
  // Speech recognition: 0 not determined, 1 denied, 2 restricted, 3 authorized.
  virtual std::optional<int> speechRecognitionAuthorizationStatus() const;
  // Home automation: an integer status.
  virtual std::optional<int> homeKitAuthorizationStatus() const;
  // Notifications, asked asynchronously: calls `completion` with 0 not
  // determined, 1 denied, 2 authorized, 3 provisional or 4 ephemeral, on any
  // thread, at any later time or never. The library never waits for it.
  virtual void requestNotificationAuthorizationStatus(std::function<void(int)> completion) const;

  // ---- Host integration ----

  // A boolean of the host's own (standard) preference store, which the
  // library reads but never writes. By default there is no such store: the
  // library stands in for the companion UI that would keep it, and answers
  // "ARE_PURPOSES_CHANGED" as true while purpose choices are waiting to be
  // reported (so the next check uploads them), every other key as false.
  // Override it to take the flags over.
  virtual bool standardPreferenceBool(const std::string& key) const;

  // Receives Google Consent Mode signals ("analytics_storage" -> "granted" or
  // "denied", ...). Empty by default: the library then looks for Firebase
  // Analytics' C++ SDK in the process.
  using ConsentModeHandler = std::function<void(const std::map<std::string, std::string>&)>;
  virtual ConsentModeHandler consentModeHandler() const;

  // A new, not yet started, monitor of network reachability; null when the
  // platform cannot watch the network.
  virtual std::unique_ptr<NetworkPathMonitor> makeNetworkPathMonitor() const;
};

// The default platform of a plain Linux program.
//
// Data lives in `dataDirectory` when given, else in
// $XDG_DATA_HOME/<applicationName> or ~/.local/share/<applicationName>, where
// the application name defaults to the program's name and the home directory
// is $HOME, else the user's entry in the password database (services started
// with an empty environment have neither variable). Languages come from
// LANGUAGE, LC_ALL, LC_MESSAGES and LANG ("de_DE.UTF-8" reads as "de-DE",
// "C" and "POSIX" as "en"). The device name is the pretty host name when the
// system has one, else the host name. There is no advertising identifier and
// tracking is never authorized (status 0), so purposes mapped to tracking are
// declined and uploads carry no advertising identifier; the information
// dictionary is `infoDictionary`, main-thread work runs inline on the calling
// thread, messages are not translated, and the standard store is the
// default one of Platform::standardPreferenceBool().
//
// Derive from it to change one facility and keep the others (override
// trackingAuthorizationStatus() and advertisingIdentifier() on a device that
// has an advertising identifier, standardPreferenceBool() to take over the
// change flags).
class PACTIVO_EXPORT LinuxPlatform : public Platform {
 public:
  // Every member has a default, so a host names only what it changes:
  // Settings{.applicationName = "com.example.tv"}.
  struct Settings {
    std::string applicationName{};          // default: the program's name
    std::filesystem::path dataDirectory{};  // default: see above
    std::vector<std::pair<std::string, std::string>> infoDictionary{};
    // Where Google Consent Mode signals go; see Platform::consentModeHandler.
    ConsentModeHandler consentModeHandler{};
    // Private CA, client certificate and proxy; see NetworkSettings.
    NetworkSettings network{};
  };

  LinuxPlatform();
  explicit LinuxPlatform(Settings settings);

  std::filesystem::path applicationSupportDirectory() const override;
  std::vector<std::string> preferredLanguages() const override;
  std::string deviceName() const override;
  std::string advertisingIdentifier() const override;
  int trackingAuthorizationStatus() const override;
  std::optional<std::string> infoDictionaryString(const std::string& key) const override;
  std::optional<std::string> libraryVersion() const override;
  void runOnMainThread(const std::function<void()>& work) override;
  std::string localizedString(const std::string& key, const std::string& comment) const override;
  std::chrono::system_clock::time_point now() const override;
  ConsentModeHandler consentModeHandler() const override;
  std::string applicationName() const override;
  NetworkSettings networkSettings() const override;
  // Watches the kernel's routing tables over a netlink socket: satisfied
  // while a non-loopback interface is up with an address and a default route
  // exists.
  std::unique_ptr<NetworkPathMonitor> makeNetworkPathMonitor() const override;

 private:
  const Settings settings_;
  const std::filesystem::path dataDirectory_;
};

// Makes `platform` the one the library uses from now on. Call it before
// `ConsentSDK::shared().setup()`; installing a platform whose data directory
// differs closes the preference suite of the previous one. A null pointer
// restores the default LinuxPlatform. Thread-safe.
PACTIVO_EXPORT void installPlatform(std::shared_ptr<Platform> platform);

// The platform in use. Thread-safe; the result stays valid while held.
PACTIVO_EXPORT std::shared_ptr<Platform> currentPlatform();

}  // namespace pactivo

#endif  // PACTIVO_PLATFORM_H_
