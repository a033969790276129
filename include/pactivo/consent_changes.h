// Consent changes as ConsentSDK::observeConsents() delivers them.
//
// A delivery lists every stored purpose or permission consent that one commit
// of the preference suite changed, whoever made it: the host in this process,
// the library's own check cycle, or another process sharing the suite.
#ifndef PACTIVO_CONSENT_CHANGES_H_
#define PACTIVO_CONSENT_CHANGES_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pactivo/enums.h"
#include "pactivo/export.h"

namespace pactivo {

// Why the consents changed.
enum class ConsentChangeCause {
  currentState,   // the first delivery of an observation: every stored consent
  host,           // set(), or a direct write through UserDefaultManager
  checkCycle,     // the recurring check or the default-value prefill
  configuration,  // a new configuration version that resets consent
  removal,        // removeConsents()
  otherProcess,   // a commit by another process on the same suite
};

// "current_state", "host", "check_cycle", "configuration", "removal",
// "other_process".
PACTIVO_EXPORT std::string_view rawValue(ConsentChangeCause cause);

// One consent that changed.
struct ConsentChange {
  // The purpose id, when a purpose's consent changed.
  std::optional<std::int64_t> purposeId;
  // The permission's LumariKey raw value ("NSCameraUsageDescription"), when
  // a permission's consent changed.
  std::optional<std::string> permission;
  std::optional<ConsentStatus> before;  // absent: nothing was stored
  std::optional<ConsentStatus> after;   // absent: removed

  bool operator==(const ConsentChange&) const = default;
};

// What one commit changed; purposes by id, then permissions by key.
struct ConsentChanges {
  ConsentChangeCause cause = ConsentChangeCause::currentState;
  std::vector<ConsentChange> changes;
};

// As JSON, one line: {"cause":"host","changes":[{"purpose_id":2,
// "before":"declined","after":"granted"},{"permission":
// "NSCameraUsageDescription","before":null,"after":"granted"}]}.
PACTIVO_EXPORT std::string encode(const ConsentChanges& changes);

// Ends an observation when destroyed or cancelled. Move-only.
//
// Threading: cancel() may be called from any thread, the callback's own
// included. When it returns on another thread, the callback is not running
// and will not start again; called from inside the callback, it stops the
// deliveries after the current one.
class PACTIVO_EXPORT ConsentObservation {
 public:
  ConsentObservation() = default;
  ConsentObservation(ConsentObservation&& other) noexcept;
  ConsentObservation& operator=(ConsentObservation&& other) noexcept;
  ~ConsentObservation();
  ConsentObservation(const ConsentObservation&) = delete;
  ConsentObservation& operator=(const ConsentObservation&) = delete;

  void cancel();
  // Whether it still delivers.
  explicit operator bool() const { return id_ != 0; }

  // For the library: an observation of the process-wide change feed.
  explicit ConsentObservation(std::uint64_t id) : id_(id) {}

 private:
  std::uint64_t id_ = 0;
};

}  // namespace pactivo

#endif  // PACTIVO_CONSENT_CHANGES_H_
