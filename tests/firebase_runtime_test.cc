// In a process of its own: once the stand-in Firebase library is loaded it
// stays, so the "not found" path is tested in the main test program.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "integrations/google_consent_mode_helper.h"
#include "pactivo/user_default_manager.h"
#include "support/sdk_fixture.h"

namespace pactivo::detail {
namespace {

TEST(FirebaseRuntimeLookup, SignalsReachSetConsentFoundInTheProcess) {
  testing::ScopedPlatform scoped;
  testing::LogCapture log;

  // First a Firebase without the consent API: told apart from no Firebase.
  ASSERT_NE(dlopen(PACTIVO_OLD_FIREBASE_LIBRARY, RTLD_NOW | RTLD_GLOBAL), nullptr) << dlerror();
  GoogleConsentModeHelper::setFirebaseConsent({{GoogleConsentType::adStorage, true}});
  EXPECT_TRUE(log.contains("Firebase Analytics setConsent method not found")) << log.text();

  ASSERT_NE(dlopen(PACTIVO_FAKE_FIREBASE_LIBRARY, RTLD_NOW | RTLD_GLOBAL), nullptr) << dlerror();
  auto received = reinterpret_cast<const char* (*)()>(dlsym(RTLD_DEFAULT, "fakeFirebaseReceived"));
  ASSERT_TRUE(received);
  // The default mapping: analytics from purpose 2, the rest from 3 (and 4).
  const MainConfiguration document = testing::exampleConfiguration();
  UserDefaultManager::setComplianceType(ComplianceType::optIn);
  UserDefaultManager::setPurposeConsent("2", ConsentStatus::granted);
  GoogleConsentModeHelper::updateFirebaseConsent(&document, "FR");
  // One call. Firebase's numbering: ad storage 0, analytics 1, user data 2,
  // personalization 3; granted 0, denied 1. Purposes 3 and 4 have no stored
  // consent, which under opt-in grants nothing.
  EXPECT_STREQ(received(), "0=1 1=0 2=1 3=1 ;");
  EXPECT_TRUE(log.contains("Firebase consent updated successfully")) << log.text();

  // A host handler takes precedence over Firebase.
  std::map<std::string, std::string> handled;
  scoped.platform().setConsentModeHandler([&](const auto& payload) { handled = payload; });
  GoogleConsentModeHelper::updateFirebaseConsent(&document, "FR");
  EXPECT_STREQ(received(), "0=1 1=0 2=1 3=1 ;");  // no second call
  EXPECT_EQ(handled.at("analytics_storage"), "granted");
}

}  // namespace
}  // namespace pactivo::detail
