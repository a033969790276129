// GoogleConsentModeHelper: Google Consent Mode signals derived from the
// stored purpose consents, and their hand-off to Firebase Analytics.
#ifndef PACTIVO_SRC_INTEGRATIONS_GOOGLE_CONSENT_MODE_HELPER_H_
#define PACTIVO_SRC_INTEGRATIONS_GOOGLE_CONSENT_MODE_HELPER_H_

#include <map>
#include <optional>
#include <string>

#include "pactivo/configuration.h"

namespace pactivo::detail {

// Stateless; every function may be called from any thread.
class GoogleConsentModeHelper {
 public:
  using ConsentMap = std::map<GoogleConsentType, bool>;  // true: granted

  // Hands the signals for `location` to Firebase Analytics, when the
  // document enables Google Consent Mode.
  static void updateFirebaseConsent(const MainConfiguration* mainConfiguration,
                                    const std::optional<std::string>& location);

  // The mapping for `location` used for the hand-off: override keys may list
  // several codes separated by ","; a location "A#B" also tries "B".
  static std::optional<DefaultMapping> selectMapping(const GcmConfig& config,
                                                     const std::optional<std::string>& location);

  // All four types: granted when every mapped purpose is granted, a purpose
  // without a stored choice counting as granted unless the compliance type
  // is opt-in; an absent or empty list is denied.
  static ConsentMap consentMap(const DefaultMapping& mapping);

  // Gives the signals to the host's handler, or to Firebase Analytics found
  // in the process; logs at debug when there is neither.
  static void setFirebaseConsent(const ConsentMap& consentMap);

  // The status query behind getGCMConsents(): override keys are matched
  // whole; types with an absent or empty list are left out.
  static std::map<GoogleConsentType, ConsentStatus> consentStatuses(const GcmConfig& config,
                                                                    const std::string& location);
};

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_INTEGRATIONS_GOOGLE_CONSENT_MODE_HELPER_H_
