// ConsentSDK: the one object through which a host drives the library.
//
// Threading: every public member may be called from any thread. Readiness
// callbacks run on the thread that changed the status (a library thread, or
// the caller's thread for the immediate call in isReady()); hop to your UI
// thread yourself if you need one. No callback runs while a library lock is
// held, and no member throws.
//
// Lifetime: ConsentSDK::shared() lives until the program exits. Destroying an
// instance cancels its background work and joins every thread it started.
#ifndef PACTIVO_CONSENT_SDK_H_
#define PACTIVO_CONSENT_SDK_H_

#include <functional>
#include <memory>
#include <optional>

#include "pactivo/enums.h"
#include "pactivo/export.h"
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

  class Impl;

 private:
  friend class detail::ConsentSDKAccess;
  std::unique_ptr<Impl> impl_;
};

}  // namespace pactivo

#endif  // PACTIVO_CONSENT_SDK_H_
