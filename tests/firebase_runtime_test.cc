// In a process of its own: once the stand-in Firebase library is loaded it
// stays, so the "not found" path is tested in the main test program.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "integrations/google_consent_mode_helper.h"
#include "pactivo/user_default_manager.h"
#include "support/test_support.h"

namespace pactivo::detail {
namespace {

TEST(FirebaseRuntimeLookup, SignalsReachSetConsentFoundInTheProcess) {
  testing::ScopedPlatform scoped;
  testing::LogCapture log;

  // First a Firebase without the consent API: told apart from no Firebase.
  ASSERT_NE(dlopen(PACTIVO_OLD_FIREBASE_LIBRARY, RTLD_NOW | RTLD_GLOBAL), nullptr) << dlerror();
  GoogleConsentModeHelper::setFirebaseConsent({{GoogleConsentType::adStorage, true}});
  EXPECT_TRUE(
      log.contains("setFirebaseConsent(consentMap:) - Firebase Analytics setConsent "
                   "method not found"));
  EXPECT_FALSE(log.contains("not found in project"));
  log.clear();

  void* library = dlopen(PACTIVO_FAKE_FIREBASE_LIBRARY, RTLD_NOW | RTLD_GLOBAL);
  ASSERT_NE(library, nullptr) << dlerror();
  auto calls = reinterpret_cast<int (*)()>(dlsym(library, "fakeFirebaseCalls"));
  auto status = reinterpret_cast<int (*)(int)>(dlsym(library, "fakeFirebaseStatus"));
  ASSERT_TRUE(calls && status);

  MainConfiguration document;
  document.isGcmEnabled = true;
  document.purposes = std::vector<Purpose>{};
  document.gcmConfig = GcmConfig{};
  document.gcmConfig->defaultMapping =
      DefaultMapping{std::vector<std::int64_t>{1}, std::vector<std::int64_t>{2}, std::nullopt,
                     std::vector<std::int64_t>{1}};
  UserDefaultManager::setComplianceType(ComplianceType::optIn);
  UserDefaultManager::setPurposeConsent("1", ConsentStatus::granted);
  GoogleConsentModeHelper::updateFirebaseConsent(&document, "US");

  EXPECT_EQ(calls(), 1);
  // Firebase's numbering: ad storage 0, analytics 1, user data 2,
  // personalization 3; granted 0, denied 1.
  EXPECT_EQ(status(0), 1);
  EXPECT_EQ(status(1), 0);
  EXPECT_EQ(status(2), 1);
  EXPECT_EQ(status(3), 0);
  EXPECT_TRUE(log.contains("Firebase consent updated successfully"));
  EXPECT_FALSE(log.contains("not found"));

  // A host handler takes precedence over Firebase.
  std::map<std::string, std::string> handled;
  scoped.platform().setConsentModeHandler(
      [&](const std::map<std::string, std::string>& payload) { handled = payload; });
  GoogleConsentModeHelper::updateFirebaseConsent(&document, "US");
  EXPECT_EQ(calls(), 1);
  EXPECT_EQ(handled.at("analytics_storage"), "granted");
}

}  // namespace
}  // namespace pactivo::detail
