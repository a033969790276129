// Firebase Analytics' C++ SDK, found at run time in the host process.
#ifndef PACTIVO_SRC_INTEGRATIONS_FIREBASE_ANALYTICS_H_
#define PACTIVO_SRC_INTEGRATIONS_FIREBASE_ANALYTICS_H_

#include <map>

#include "pactivo/enums.h"

namespace pactivo::detail {

class FirebaseAnalytics {
 public:
  enum class Outcome {
    sent,            // SetConsent was called
    notFound,        // the process does not carry Firebase Analytics
    methodNotFound,  // it does, in a version without SetConsent
  };
  // Calls firebase::analytics::SetConsent with `consent` when the process
  // carries it.
  static Outcome setConsent(const std::map<GoogleConsentType, bool>& consent);
};

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_INTEGRATIONS_FIREBASE_ANALYTICS_H_
