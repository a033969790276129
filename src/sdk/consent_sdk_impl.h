// The state behind ConsentSDK, shared by the facade's source files (one per
// concern: setup and readiness, configuration cache, network calls, the check
// cycle, the public consent operations).
#ifndef PACTIVO_SRC_SDK_CONSENT_SDK_IMPL_H_
#define PACTIVO_SRC_SDK_CONSENT_SDK_IMPL_H_

#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "network/network_manager.h"
#include "pactivo/configuration.h"
#include "pactivo/consent_sdk.h"
#include "pactivo/platform.h"
#include "pactivo/sdk_listener.h"
#include "persistence/preference_writer.h"
#include "runtime/scheduler.h"
#include "runtime/task_runner.h"

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

  // The cached document, or null; a backup left by an interrupted save is
  // used and restored. `isCache` true reads quietly.
  std::shared_ptr<const MainConfiguration> readCDNFile(bool isCache);
  // Writes `config` to `fileName` in the data directory atomically, keeping
  // the previous file as a backup until the new one is in place; the saved
  // document becomes the cached one. The saved file, or nothing when the save
  // failed (logged). Its bookkeeping is the caller's to record, with
  // recordSave(), in the commit that applies the document.
  std::optional<std::filesystem::path> saveCDNToFile(MainConfiguration config,
                                                     const std::string& fileName);
  // The bookkeeping of a save of `target`: location, time and language.
  static void recordSave(detail::PreferenceWriter& writer, const std::filesystem::path& target);

  // Deletes the cached configuration file and forgets its ETag, so the next
  // fetch is unconditional.
  static void discardCachedConfiguration();
  // Without a usable cached document: logs and removes the damaged file and
  // forgets the ETag, so that the next fetch is unconditional.
  void discardDamagedCache();
  static void removeCDNFile(const std::filesystem::path& file);
  // The "file://" URL of `path` (RFC 8089), as "CDN_FILE_LOCATION" stores it.
  static std::string fileUrl(const std::filesystem::path& path);

  // ---- Network calls (consent_sdk_network_apis.cc) ----

  // Fetches the document in the current language, falling back once to the
  // language-neutral file on 404. Throws NetworkError or TransportError. The
  // reply's ETag is left in `*etag` for the caller to store.
  MainConfiguration getCDN(const ConsentSDKOptions& options, std::optional<std::string>* etag);
  // Asks the location service where the device is. Throws.
  CurrentLocationResponse fetchCurrentLocation();
  // Looks the location up and stores country, location and time; logs and
  // returns false when that fails.
  bool getCurrentLocation();

  // ---- Check cycle (consent_sdk_internal_methods.cc) ----

  // (Re)arms the repeating consent check; one timer at most is live.
  void startRecurringConsentCheck();
  // (Re)creates the network path monitor; a return to the network starts a
  // consent check.
  void startNetworkMonitoring();
  // What a timer tick or a reconnection does: start a consent check.
  void scheduleConsentCheck();
  // Starts a consent check, unless one is running: then that one runs once
  // more when it ends. However many requests arrive, at most one check is in
  // flight and at most one follows it.
  void requestConsentCheck();
  // Reports a choice the host just recorded: a consent check a few seconds
  // from now, shared by every choice made until it starts.
  void requestCheckSoon();
  // Runs one consent check now and returns when it and its upload are done.
  void checkConsentsNow();
  // Re-evaluates purposes and permissions and uploads what changed or is
  // still pending.
  void runConsentCheck();
  // Called with every path the monitor reports.
  void onNetworkPath(NetworkPathStatus status);
  // Records the defaults of a user who has not chosen yet, and uploads them.
  void prefillDefaultValues(const std::shared_ptr<const MainConfiguration>& config, bool flag);

  // ---- Public consent API (consent_sdk_public_methods.cc) ----

  std::optional<BannerConfig> getBannerConfig(const MainConfiguration* config);
  void uploadConsents(const std::string& url, const PostConsentsRequest& request);
  std::map<GoogleConsentType, ConsentStatus> getGCMConsents();
  // The host's location code when given and not empty, else the stored
  // country code.
  std::optional<std::string> gcmLocation() const;
  ConsentObservation observeConsents(std::function<void(const ConsentChanges&)> callback);
  // Runs `work` on a library thread.
  void runInBackground(std::function<void()> work) { tasks_.start(std::move(work)); }

  // Drives the recurring check's time in tests; set before setup.
  void setClock(std::shared_ptr<detail::Clock> clock) { clock_ = std::move(clock); }

  // Constant after construction.
  const std::shared_ptr<SDKListener> sdkListener = std::make_shared<SDKListener>();
  const std::shared_ptr<SDKListener> prevSdkListener = std::make_shared<SDKListener>();
  const std::unique_ptr<detail::NetworkManager> networkManager =
      std::make_unique<detail::ConsentNetworkManager>();

  // The task slots: each holds the last task of its kind, replaced (never
  // awaited) when another starts; all are cancelled at teardown.
  enum class TaskSlot {
    consentCheckTask,
    prefillDefaultValuesTask,
    acceptOrRejectTask,
    consentCheckInnerTask,
    uploadConsentTask,
  };
  void startTask(TaskSlot slot, std::function<void()> body);
  void cancelTask(TaskSlot slot);

 private:
  void runSetupTask(bool unreported);
  // False without a preference suite or a language: the library then stays
  // unavailable and starts nothing.
  static bool usable();
  // Applies `document`, when there is one, in one commit with what
  // `alsoRecord` writes.
  void applyConfiguration(const std::shared_ptr<const MainConfiguration>& document,
                          const std::function<void(detail::PreferenceWriter&)>& alsoRecord);

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
  std::shared_ptr<detail::Clock> clock_ = std::make_shared<detail::SteadyClock>();

  std::mutex cycleMutex_;
  // State below is guarded by cycleMutex_.
  std::unique_ptr<detail::RepeatingTimer> recurringCheckTask_;
  std::unique_ptr<detail::OneShotTimer> choiceReport_;  // armed by requestCheckSoon()
  bool checkRunning_ = false;
  bool checkRequested_ = false;  // another check is due when the running one ends
  std::unique_ptr<NetworkPathMonitor> monitor_;
  std::optional<NetworkPathStatus> networkStatus_;
  std::map<TaskSlot, detail::TaskHandle> taskHandles_;
  bool closing_ = false;  // set by the destructor: nothing new may start

  // Set when a document was read or fetched: getCDNFile() then gives the
  // memory it used back to the system.
  std::atomic<bool> memoryToRelease_{false};

  std::mutex cacheMutex_;
  // State below is guarded by cacheMutex_, which also keeps two saves from
  // interleaving their backup moves.
  FileIdentity cachedIdentity_;
  std::shared_ptr<const MainConfiguration> cachedDocument_;

  mutable std::mutex mutex_;
  // State below is guarded by mutex_.
  std::optional<ConsentSDKOptions> options_;
  SDKListener::Observation observer_;
  // Every observation made through this facade, ended with it. One the host
  // already cancelled is cancelled again harmlessly.
  std::vector<std::uint64_t> observations_;

  // Declared last: destroyed first, so no task outlives the state it uses.
  detail::TaskRunner tasks_;
};

}  // namespace pactivo

#endif  // PACTIVO_SRC_SDK_CONSENT_SDK_IMPL_H_
