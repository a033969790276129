#include <gtest/gtest.h>

#include "integrations/google_consent_mode_helper.h"
#include "pactivo/user_default_manager.h"
#include "support/test_support.h"

namespace pactivo::detail {
namespace {

using testing::LogCapture;
using testing::ScopedPlatform;
using Ids = std::vector<std::int64_t>;

DefaultMapping mapping(std::optional<Ids> analytics, std::optional<Ids> ad = Ids{},
                       std::optional<Ids> userData = std::nullopt,
                       std::optional<Ids> personalization = std::nullopt) {
  return DefaultMapping{analytics, ad, userData, personalization};
}

GcmConfig config(std::map<std::string, DefaultMapping> overrides) {
  GcmConfig gcm;
  gcm.defaultMapping = mapping(Ids{100});
  gcm.regionOverrides = std::move(overrides);
  return gcm;
}

class GcmTest : public ::testing::Test {
 protected:
  GcmTest() {
    scoped_.platform().setConsentModeHandler(
        [this](const std::map<std::string, std::string>& payload) {
          payloads_.push_back(payload);
        });
  }
  ScopedPlatform scoped_;
  LogCapture log_;
  std::vector<std::map<std::string, std::string>> payloads_;
};

TEST_F(GcmTest, RegionSelectionForTheHandOff) {
  GcmConfig gcm = config({{"US, CA", mapping(Ids{1})},
                          {"DE\t,AT", mapping(Ids{2})},
                          {"", mapping(Ids{3})},
                          {"FR#X", mapping(Ids{4})}});
  struct Case {
    std::optional<std::string> location;
    std::int64_t expected;  // first analytics id of the chosen mapping
  } cases[] = {
      {"US", 1},   {"CA", 1}, {"AT", 2},           {"DE", 2},   {"XX#US", 1}, {"A#B#CA", 1},
      {"us", 100}, {"", 100}, {std::nullopt, 100}, {"XX", 100}, {"FR#X", 4},  {"Z#", 3},
  };
  for (const auto& c : cases) {
    auto chosen = GoogleConsentModeHelper::selectMapping(gcm, c.location);
    ASSERT_TRUE(chosen) << c.location.value_or("nil");
    EXPECT_EQ(chosen->analyticsStorage->front(), c.expected) << c.location.value_or("nil");
  }
  GcmConfig noDefault;
  EXPECT_FALSE(GoogleConsentModeHelper::selectMapping(noDefault, "US"));
  noDefault.regionOverrides = std::map<std::string, DefaultMapping>{};
  EXPECT_FALSE(GoogleConsentModeHelper::selectMapping(noDefault, "US"));
}

TEST_F(GcmTest, StatusQueryMatchesWholeKeys) {
  GcmConfig gcm = config({{"US, CA", mapping(Ids{1})}, {"US", mapping(Ids{2}, std::nullopt)}});
  UserDefaultManager::setPurposeConsent("2", ConsentStatus::granted);
  UserDefaultManager::setPurposeConsent("100", ConsentStatus::declined);
  auto us = GoogleConsentModeHelper::consentStatuses(gcm, "US");
  EXPECT_EQ(us, (std::map<GoogleConsentType, ConsentStatus>{
                    {GoogleConsentType::analyticsStorage, ConsentStatus::granted}}));
  // "CA" is listed only inside "US, CA": the whole-key lookup misses it.
  auto ca = GoogleConsentModeHelper::consentStatuses(gcm, "CA");
  EXPECT_EQ(ca, (std::map<GoogleConsentType, ConsentStatus>{
                    {GoogleConsentType::analyticsStorage, ConsentStatus::declined}}));
  auto hashed = GoogleConsentModeHelper::consentStatuses(gcm, "XX#US");
  EXPECT_EQ(hashed.at(GoogleConsentType::analyticsStorage), ConsentStatus::granted);
}

TEST_F(GcmTest, DecisionFromStoredConsents) {
  struct Case {
    const char* name;
    std::optional<ComplianceType> compliance;
    std::map<std::string, ConsentStatus> stored;
    bool analyticsGranted;
  } cases[] = {
      {"opt-out, nothing stored", ComplianceType::optOut, {}, true},
      {"opt-out, one withdrawn", ComplianceType::optOut, {{"2", ConsentStatus::withDrawn}}, false},
      {"opt-in, nothing stored", ComplianceType::optIn, {}, false},
      {"opt-in, all granted",
       ComplianceType::optIn,
       {{"1", ConsentStatus::granted}, {"2", ConsentStatus::granted}},
       true},
      {"notice-only, one not determined",
       std::nullopt,
       {{"1", ConsentStatus::notDetermined}},
       false},
      {"opt-in, one granted one missing",
       ComplianceType::optIn,
       {{"1", ConsentStatus::granted}},
       false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    UserDefaultManager::removeAllConsents();
    if (c.compliance) UserDefaultManager::setComplianceType(*c.compliance);
    for (const auto& [key, status] : c.stored) UserDefaultManager::setPurposeConsent(key, status);
    DefaultMapping m = mapping(Ids{1, 2}, Ids{}, std::nullopt, Ids{1});
    auto map = GoogleConsentModeHelper::consentMap(m);
    EXPECT_EQ(map.size(), 4u);
    EXPECT_EQ(map.at(GoogleConsentType::analyticsStorage), c.analyticsGranted);
    EXPECT_FALSE(map.at(GoogleConsentType::adStorage));   // empty list
    EXPECT_FALSE(map.at(GoogleConsentType::adUserData));  // absent list

    GcmConfig gcm;
    gcm.defaultMapping = m;
    auto statuses = GoogleConsentModeHelper::consentStatuses(gcm, "");
    EXPECT_EQ(statuses.size(), 2u);  // empty and absent lists are left out
    EXPECT_EQ(statuses.at(GoogleConsentType::analyticsStorage),
              c.analyticsGranted ? ConsentStatus::granted : ConsentStatus::declined);
  }
}

TEST_F(GcmTest, HandOffThroughTheHostHandler) {
  MainConfiguration document;
  document.isGcmEnabled = true;
  document.purposes = std::vector<Purpose>{};
  document.gcmConfig = config({{"US, CA", mapping(Ids{1}, Ids{})}});
  UserDefaultManager::setComplianceType(ComplianceType::optOut);
  GoogleConsentModeHelper::updateFirebaseConsent(&document, "CA");
  ASSERT_EQ(payloads_.size(), 1u);
  EXPECT_EQ(payloads_[0], (std::map<std::string, std::string>{{"analytics_storage", "granted"},
                                                              {"ad_storage", "denied"},
                                                              {"ad_user_data", "denied"},
                                                              {"ad_personalization", "denied"}}));
  EXPECT_TRUE(
      log_.contains("setFirebaseConsent(consentMap:) - Firebase consent updated successfully: "
                    "[analytics_storage: "
                    "true, ad_storage: false, ad_user_data: false, ad_personalization: false]"));
}

TEST_F(GcmTest, NothingHappensWhenDisabledOrIncomplete) {
  MainConfiguration document;
  document.purposes = std::vector<Purpose>{};
  document.gcmConfig = config({});
  struct Case {
    const char* name;
    std::function<void(MainConfiguration&)> change;
  } cases[] = {
      {"absent switch", [](MainConfiguration& d) { d.isGcmEnabled.reset(); }},
      {"switched off", [](MainConfiguration& d) { d.isGcmEnabled = false; }},
      {"no gcm config",
       [](MainConfiguration& d) {
         d.isGcmEnabled = true;
         d.gcmConfig.reset();
       }},
      {"no purposes",
       [](MainConfiguration& d) {
         d.isGcmEnabled = true;
         d.purposes.reset();
       }},
  };
  for (const auto& c : cases) {
    MainConfiguration copy = document;
    c.change(copy);
    log_.clear();
    GoogleConsentModeHelper::updateFirebaseConsent(&copy, "US");
    EXPECT_TRUE(payloads_.empty()) << c.name;
    EXPECT_TRUE(log_.text().empty()) << c.name;
  }
  GoogleConsentModeHelper::updateFirebaseConsent(nullptr, "US");
  EXPECT_TRUE(payloads_.empty());
}

TEST_F(GcmTest, MissingMappingIsLogged) {
  MainConfiguration document;
  document.isGcmEnabled = true;
  document.purposes = std::vector<Purpose>{};
  document.gcmConfig = GcmConfig{};
  GoogleConsentModeHelper::updateFirebaseConsent(&document, std::nullopt);
  GoogleConsentModeHelper::updateFirebaseConsent(&document, "DE");
  EXPECT_TRUE(payloads_.empty());
  EXPECT_TRUE(
      log_.contains("updateFirebaseConsent(mainConfiguration:location:) - No GCM mapping "
                    "found for location: nil"));
  EXPECT_TRUE(log_.contains("No GCM mapping found for location: DE"));
}

TEST(GcmWithoutFirebase, NotFoundIsOneDebugLine) {
  ScopedPlatform scoped;
  LogCapture log;
  GoogleConsentModeHelper::setFirebaseConsent({{GoogleConsentType::adStorage, true}});
  EXPECT_TRUE(log.contains("[DEBUG]"));
  EXPECT_TRUE(
      log.contains("setFirebaseConsent(consentMap:) - Firebase Analytics not found in project"));
  EXPECT_FALSE(log.contains("updated successfully"));
}

}  // namespace
}  // namespace pactivo::detail
