#include "integrations/firebase_analytics.h"

#include <dlfcn.h>

// Firebase Analytics' own enumerations, as its C++ SDK declares them: the
// function found at run time is called with exactly its parameter type.
namespace firebase::analytics {
enum ConsentType {
  kConsentTypeAdStorage = 0,
  kConsentTypeAnalyticsStorage,
  kConsentTypeAdUserData,
  kConsentTypeAdPersonalization
};
enum ConsentStatus { kConsentStatusGranted = 0, kConsentStatusDenied };
}  // namespace firebase::analytics

namespace pactivo::detail {
namespace {

using firebase::analytics::kConsentStatusDenied;
using firebase::analytics::kConsentStatusGranted;
using firebase::analytics::kConsentTypeAdPersonalization;
using firebase::analytics::kConsentTypeAdStorage;
using firebase::analytics::kConsentTypeAdUserData;
using firebase::analytics::kConsentTypeAnalyticsStorage;
using FirebaseConsentType = firebase::analytics::ConsentType;
using FirebaseConsent =
    std::map<firebase::analytics::ConsentType, firebase::analytics::ConsentStatus>;
using SetConsentFunction = void (*)(const FirebaseConsent&);

// firebase::analytics::SetConsent(
//     const std::map<firebase::analytics::ConsentType,
//                    firebase::analytics::ConsentStatus>&), as the Itanium ABI
// names it. Looked up rather than linked, so the library builds and runs
// without Firebase.
// firebase::analytics::SetAnalyticsCollectionEnabled(bool), present in every
// version: it tells an old Firebase from no Firebase.
constexpr const char* kAnalyticsPresentSymbol =
    "_ZN8firebase9analytics29SetAnalyticsCollectionEnabledEb";
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

FirebaseAnalytics::Outcome FirebaseAnalytics::setConsent(
    const std::map<GoogleConsentType, bool>& consent) {
  void* symbol = dlsym(RTLD_DEFAULT, kSetConsentSymbol);
  if (symbol == nullptr) {
    return dlsym(RTLD_DEFAULT, kAnalyticsPresentSymbol) != nullptr ? Outcome::methodNotFound
                                                                   : Outcome::notFound;
  }
  FirebaseConsent settings;
  for (const auto& [type, granted] : consent) {
    settings[firebaseType(type)] = granted ? kConsentStatusGranted : kConsentStatusDenied;
  }
  reinterpret_cast<SetConsentFunction>(symbol)(settings);
  return Outcome::sent;
}

}  // namespace pactivo::detail
