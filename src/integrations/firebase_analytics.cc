#include "integrations/firebase_analytics.h"

#include <dlfcn.h>

namespace pactivo::detail {
namespace {

// Firebase's own enumerations, with its values: a std::map of these has the
// layout of the map its SetConsent takes.
enum FirebaseConsentType : int {
  kConsentTypeAdStorage = 0,
  kConsentTypeAnalyticsStorage = 1,
  kConsentTypeAdUserData = 2,
  kConsentTypeAdPersonalization = 3,
};
enum FirebaseConsentStatus : int { kConsentStatusGranted = 0, kConsentStatusDenied = 1 };

using FirebaseConsent = std::map<FirebaseConsentType, FirebaseConsentStatus>;
using SetConsentFunction = void (*)(const FirebaseConsent&);

// firebase::analytics::SetConsent(
//     const std::map<firebase::analytics::ConsentType,
//                    firebase::analytics::ConsentStatus>&), as the Itanium ABI
// names it. Looked up rather than linked, so the library builds and runs
// without Firebase.
constexpr const char* kSetConsentSymbol =
    "_ZN8firebase9analytics10SetConsentERKSt3mapINS0_11ConsentTypeENS0_13ConsentStatusESt4lessIS2_"
    "ESaISt4pairIKS2_S3_EEE";

FirebaseConsentType firebaseType(GoogleConsentType type) {
  switch (type) {
    case GoogleConsentType::analyticsStorage:
      return kConsentTypeAnalyticsStorage;
    case GoogleConsentType::adStorage:
      return kConsentTypeAdStorage;
    case GoogleConsentType::adUserData:
      return kConsentTypeAdUserData;
    case GoogleConsentType::adPersonalization:
      break;
  }
  return kConsentTypeAdPersonalization;
}

}  // namespace

bool FirebaseAnalytics::setConsent(const std::map<GoogleConsentType, bool>& consent) {
  void* symbol = dlsym(RTLD_DEFAULT, kSetConsentSymbol);
  if (symbol == nullptr) return false;
  FirebaseConsent settings;
  for (const auto& [type, granted] : consent) {
    settings[firebaseType(type)] = granted ? kConsentStatusGranted : kConsentStatusDenied;
  }
  reinterpret_cast<SetConsentFunction>(symbol)(settings);
  return true;
}

}  // namespace pactivo::detail
