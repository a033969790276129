// PurposeManager: the consent of each processing purpose of a document.
#ifndef PACTIVO_SRC_PURPOSES_PURPOSE_MANAGER_H_
#define PACTIVO_SRC_PURPOSES_PURPOSE_MANAGER_H_

#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "pactivo/configuration.h"
#include "pactivo/consent_records.h"
#include "persistence/preference_writer.h"

namespace pactivo::detail {

// Made from one document for one evaluation; every lasting value lives in the
// preference store. Reads the document's purposes in place, so the document
// must outlive the manager. Not shared between threads; two managers may run
// at once.
class PurposeManager {
 public:
  PurposeManager(const std::optional<std::vector<Purpose>>& purposes,
                 std::optional<bool> isATTEnabled, std::optional<ATTConfig> attConfig);
  // The purposes are not copied: a temporary list would not outlive the call.
  PurposeManager(std::optional<std::vector<Purpose>>&&, std::optional<bool>,
                 std::optional<ATTConfig>) = delete;

  struct CheckResult {
    bool changed = false;
    std::vector<PurposeConsent> consents;  // to report
  };
  // Re-evaluates tracking-mapped purposes, records what tracking
  // authorization changed, and collects the pending purposes to report.
  CheckResult checkPurposes();

  // The purposes with their current consent, essential ones first, then
  // tracking-mapped ones, then the rest, each group by localized name.
  std::vector<Purpose> getPurposes();

  // Records a choice: the consent, the change flag and time, the consent-given
  // type and the pending entry commit together, or (false) nothing does.
  // Refuses (false) a consent that acceptsConsent() refuses. Taking back a
  // granted consent is stored as `withDrawn`.
  static bool updatePurposeConsent(const Purpose& purpose, ConsentStatus consent,
                                   std::string_view consentGivenType);
  // False for a purpose without id, for anything but `granted` for an
  // essential purpose, and for `notDetermined`.
  static bool acceptsConsent(const Purpose& purpose, ConsentStatus consent);
  // The writes of updatePurposeConsent() for an accepted consent, inside a
  // transaction the caller holds.
  static void recordConsent(PreferenceWriter& writer, std::int64_t purposeId, ConsentStatus consent,
                            std::string_view consentGivenType);

  // The consent of a purpose nobody chose for: declined under the stored
  // opt-in compliance type, granted otherwise.
  static ConsentStatus complianceDefault();
  // Whether the platform reports tracking as authorized.
  static bool trackingAuthorized();

 private:
  struct Evaluation {
    ConsentStatus storedOrDefault;
    ConsentStatus current;
    bool trackingMapped = false;
  };
  Evaluation currentConsent(const Purpose& purpose) const;
  // A copy of `purpose` with its consent and tracking fields filled in.
  Purpose evaluatedCopy(const Purpose& purpose) const;

  const std::vector<Purpose>* const purposes_;  // null when the document has none
  const std::optional<bool> isATTEnabled_;
  const std::optional<ATTConfig> attConfig_;
};

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_PURPOSES_PURPOSE_MANAGER_H_
