// The state behind ConsentSDK, shared by the facade's source files (one per
// concern: setup and readiness, configuration cache, network calls, the check
// cycle, the public consent operations).
#ifndef PACTIVO_SRC_SDK_CONSENT_SDK_IMPL_H_
#define PACTIVO_SRC_SDK_CONSENT_SDK_IMPL_H_

#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>

#include "network/network_manager.h"
#include "pactivo/configuration.h"
#include "pactivo/consent_sdk.h"
#include "pactivo/sdk_listener.h"
#include "sdk/task_runner.h"

namespace pactivo {

class ConsentSDK::Impl {
 public:
  Impl();
  ~Impl();

  void setup(const ConsentSDKOptions& options);
  void isReady(std::function<void(SDKStatus)> callback);
  void removeListeners();
  std::optional<ConsentSDKOptions> options() const;
  // Waits until no background task of this facade is running.
  void waitUntilIdle() { tasks_.waitUntilIdle(); }

  // ---- Configuration cache (consent_sdk_cdn_utils.cc) ----

  // The document to use: the cached one while it is younger than an hour,
  // else a fresh fetch, else the stale cache. Applies it to the preference
  // store and moves readiness to `available`, or `unavailable` when there is
  // none. Blocks while fetching.
  std::shared_ptr<const MainConfiguration> getCDNFile();

  // The cached document, or null. `isCache` true reads quietly.
  std::shared_ptr<const MainConfiguration> readCDNFile(bool isCache);
  // Writes `config` to `fileName` in the data directory, keeping the previous
  // file as a backup that is restored when the write fails.
  void saveCDNToFile(const MainConfiguration& config, const std::string& fileName);

  // Deletes the cached configuration file and forgets its ETag, so the next
  // fetch is unconditional.
  static void discardCachedConfiguration();
  static void removeCDNFile(const std::filesystem::path& file);

  // ---- Network calls (consent_sdk_network_apis.cc) ----

  // Fetches the document in the current language, falling back once to the
  // language-neutral file on 404. Throws NetworkError or TransportError.
  MainConfiguration getCDN(const ConsentSDKOptions& options);
  // Asks the location service where the device is. Throws.
  CurrentLocationResponse fetchCurrentLocation();

  // Constant after construction.
  const std::shared_ptr<SDKListener> sdkListener = std::make_shared<SDKListener>();
  const std::shared_ptr<SDKListener> prevSdkListener = std::make_shared<SDKListener>();
  const std::unique_ptr<detail::NetworkManager> networkManager =
      std::make_unique<detail::ConsentNetworkManager>();

 private:
  void runSetupTask();
  void applyConfiguration(const std::shared_ptr<const MainConfiguration>& document);
  void startPrefillDefaultValues(std::shared_ptr<const MainConfiguration> config, bool reConsent);

  // The last document read from disk and the identity of the file it came
  // from, so that an unchanged file is not parsed again.
  struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;
    struct timespec modified = {};
    bool operator==(const FileIdentity& o) const {
      return device == o.device && inode == o.inode && size == o.size &&
             modified.tv_sec == o.modified.tv_sec && modified.tv_nsec == o.modified.tv_nsec;
    }
  };
  std::mutex cacheMutex_;
  // State below is guarded by cacheMutex_, which also keeps two saves from
  // interleaving their backup moves.
  FileIdentity cachedIdentity_;
  std::shared_ptr<const MainConfiguration> cachedDocument_;

  mutable std::mutex mutex_;
  // State below is guarded by mutex_.
  std::optional<ConsentSDKOptions> options_;
  SDKListener::Observation observer_;

  // Declared last: destroyed first, so no task outlives the state it uses.
  detail::TaskRunner tasks_;
};

}  // namespace pactivo

#endif  // PACTIVO_SRC_SDK_CONSENT_SDK_IMPL_H_
