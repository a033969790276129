// ConsentSDK: the one object through which a host drives the library.
//
// Threading: every public member may be called from any thread. Readiness
// callbacks run on the thread that changed the status (a library thread, or
// the caller's thread for the immediate call in isReady()); hop to your UI
// thread yourself if you need one. No callback runs while a library lock is
// held, and no member throws.
//
// Blocking: the queries that need the configuration document
// (getPurposeConsents(), getBannerConfig(), ...) may fetch it, and
// uploadConsents() always talks to the server: they can wait on the network
// for up to a minute and must not be called on a UI thread. Each has a
// variant taking a callback, which runs the query on a library thread and
// calls back there.
//
// Lifetime: ConsentSDK::shared() lives until the program exits. Destroying an
// instance cancels its background work and joins every thread it started.
#ifndef PACTIVO_CONSENT_SDK_H_
#define PACTIVO_CONSENT_SDK_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pactivo/configuration.h"
#include "pactivo/consent_changes.h"
#include "pactivo/consent_records.h"
#include "pactivo/enums.h"
#include "pactivo/export.h"
#include "pactivo/lumari_key.h"
#include "pactivo/options.h"

namespace pactivo {
namespace detail {
class ConsentSDKAccess;
}  // namespace detail

class PACTIVO_EXPORT ConsentSDK {
 public:
  // The process-wide instance, created on first use.
  static ConsentSDK& shared();

  // A separate instance with a lifetime of the caller's choosing. The
  // preference suite, the cached configuration and the language code are
  // process-wide, so two live instances share them.
  ConsentSDK();
  ~ConsentSDK();
  ConsentSDK(const ConsentSDK&) = delete;
  ConsentSDK& operator=(const ConsentSDK&) = delete;

  // Records `options`, reconciles the persisted mode, language and subject
  // identity with them, and starts loading the configuration in the
  // background. Returns at once; readiness reports the outcome. May be called
  // again; each call replaces the options.
  void setup(const ConsentSDKOptions& options);

  // Calls `callback` at once with the current status, then with each later
  // change of status (a status is delivered once, however often it is
  // written). A second call replaces the first callback.
  void isReady(std::function<void(SDKStatus)> callback);

  // The current readiness status; `unavailable` before setup.
  SDKStatus getStatus() const;

  // Stops delivering status changes to the callback of isReady().
  void removeListeners();

  // The options of the last setup, if any.
  std::optional<ConsentSDKOptions> options() const;

  // ---- Consent state (reads the preference suite; never blocks) ----

  // Removes every stored consent, the subject identity and the cache
  // bookkeeping.
  void removeConsents();
  // The stored consent of a purpose, or the compliance default (declined
  // under opt-in, granted otherwise) when none is stored.
  ConsentStatus get(std::int64_t purposeId);
  // The consent the platform reports for a device permission.
  ConsentStatus get(const LumariKey& lumariKey);
  // The same for a fixed key; without it, get(LumariKey::cameraUsageDescription)
  // would convert the enumerator to an integer and read purpose 3.
  ConsentStatus get(LumariKey::Case lumariKey) { return get(LumariKey(lumariKey)); }
  // Records the user's choice for a purpose; false when refused (no id, an
  // essential purpose declined, or notDetermined). Also forwards Google
  // Consent Mode signals in the background.
  bool set(const Purpose& purpose, ConsentStatus consent);
  // Records the user's choice for a permission; false unless it is what the
  // platform reports.
  bool set(const AppPermission& permission, ConsentStatus consent);

  // ---- Queries on the configuration document (may block; see above) ----

  // The purposes with their consent: essential ones first, then those tied to
  // tracking, then the rest, each group by name. Empty without a document.
  // "By name" is the current language's order: letter case ignored, digit
  // runs by value ("Purpose 9" before "Purpose 10"), a plain letter before
  // its accented forms, equal names in the document's order. A build without
  // ICU (PACTIVO_WITH_ICU=OFF) gives the same order for text in Latin-1 and
  // differs beyond it; the README's "Display order" lists how.
  std::vector<Purpose> getPurposeConsents();
  // The configured permissions with their consent, by name (as above).
  std::vector<AppPermission> getPermissionConsents();
  std::optional<GcmConfig> getGCMConfig();
  std::optional<SettingsPrompt> getSettingsPrompt();
  // The Google Consent Mode decision for the user's location; empty when the
  // document does not enable it.
  std::map<GoogleConsentType, ConsentStatus> getGCMConsents();
  // The banner category for the user's location (looked up when the host
  // gave none and none was found in the last hour), else the "default" one.
  // Uses `config` when given, else the current document.
  std::optional<BannerConfig> getBannerConfig(const std::optional<MainConfiguration>& config);
  // Posts a consent record to `url` (the application server's base URL) and
  // keeps the pending-upload flag.
  void uploadConsents(const std::string& url, const PostConsentsRequest& request);
  // Runs one consent check now, as the timer would, and waits until it and
  // the upload it starts (if anything changed or is pending) have finished.
  void checkConsents();

  // ---- Consent changes ----

  // Calls `callback` with every consent stored now (cause currentState), then
  // once per commit that changes a stored purpose or permission consent:
  // this process's (set(), the check cycle, a configuration reset,
  // removeConsents()) or another process's on the same suite, noticed
  // without polling. A write that leaves a value as it was delivers nothing;
  // a commit of many changes (a prefill of 700 purposes) is one delivery.
  //
  // Threads: every delivery, to every observer, runs on one library thread
  // ("pactivo-events", started by the first observation), in commit order,
  // with no library lock held, so the callback may call any member, set()
  // and observeConsents() included. A slow callback delays later deliveries,
  // never a set(). An exception from it is logged at error and delivery goes
  // on.
  //
  // Lifetime: delivery stops when the returned observation is cancelled or
  // destroyed, or when this ConsentSDK is destroyed. An empty callback gives
  // an empty observation.
  ConsentObservation observeConsents(std::function<void(const ConsentChanges&)> callback);

  // The same queries, run on a library thread; `done` is called there.
  void getPurposeConsents(std::function<void(std::vector<Purpose>)> done);
  void getPermissionConsents(std::function<void(std::vector<AppPermission>)> done);
  void getGCMConsents(std::function<void(std::map<GoogleConsentType, ConsentStatus>)> done);
  void getBannerConfig(const std::optional<MainConfiguration>& config,
                       std::function<void(std::optional<BannerConfig>)> done);
  void uploadConsents(const std::string& url, const PostConsentsRequest& request,
                      std::function<void()> done);

  class Impl;

 private:
  friend class detail::ConsentSDKAccess;
  std::unique_ptr<Impl> impl_;
};

}  // namespace pactivo

#endif  // PACTIVO_CONSENT_SDK_H_
