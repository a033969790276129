#include <gtest/gtest.h>

#include "integrations/google_consent_mode_helper.h"
#include "pactivo/user_default_manager.h"
#include "support/test_support.h"

namespace pactivo::detail {
namespace {

using Ids = std::vector<std::int64_t>;
using Helper = GoogleConsentModeHelper;
using Statuses = std::map<GoogleConsentType, ConsentStatus>;
using enum GoogleConsentType;
constexpr auto G = ConsentStatus::granted, D = ConsentStatus::declined,
               W = ConsentStatus::withDrawn, N = ConsentStatus::notDetermined;
constexpr auto kOptIn = ComplianceType::optIn, kOptOut = ComplianceType::optOut;

DefaultMapping mapping(std::optional<Ids> analytics, std::optional<Ids> ad = Ids{},
                       std::optional<Ids> personalization = std::nullopt) {
  return DefaultMapping{analytics, ad, std::nullopt, personalization};
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
    scoped_.platform().setConsentModeHandler([this](const auto& p) { payloads_.push_back(p); });
  }
  testing::ScopedPlatform scoped_;
  testing::LogCapture log_;
  std::vector<std::map<std::string, std::string>> payloads_;
};

// Keys are split on commas and trimmed; a location is the last part after '#'.
TEST_F(GcmTest, RegionSelectionForTheHandOff) {
  GcmConfig gcm = config({{"US, CA", mapping(Ids{1})},
                          {"DE\t,AT", mapping(Ids{2})},
                          {"", mapping(Ids{3})},
                          {"FR#X", mapping(Ids{4})}});
  std::string chosen;  // the first analytics id of each location's mapping
  for (std::optional<std::string> location :
       {"US", "CA", "AT", "DE", "XX#US", "A#B#CA", "us", "", "XX", "FR#X", "Z#"}) {
    chosen += std::to_string(Helper::selectMapping(gcm, location)->analyticsStorage->front()) + " ";
  }
  EXPECT_EQ(chosen, "1 1 2 2 1 1 100 100 100 4 3 ");
  EXPECT_EQ(Helper::selectMapping(gcm, std::nullopt)->analyticsStorage, Ids{100});
  GcmConfig noDefault;
  EXPECT_FALSE(Helper::selectMapping(noDefault, "US"));
  noDefault.regionOverrides = std::map<std::string, DefaultMapping>{};
  EXPECT_FALSE(Helper::selectMapping(noDefault, "US"));

  // The status query matches whole keys only: "CA" is only inside "US, CA".
  gcm = config({{"US, CA", mapping(Ids{1})}, {"US", mapping(Ids{2}, std::nullopt)}});
  UserDefaultManager::setPurposeConsent("2", G);
  UserDefaultManager::setPurposeConsent("100", D);
  for (auto [location, analytics] : {std::pair{"US", G}, {"CA", D}, {"XX#US", G}}) {
    EXPECT_EQ(Helper::consentStatuses(gcm, location), (Statuses{{analyticsStorage, analytics}}))
        << location;
  }
}

TEST_F(GcmTest, DecisionFromStoredConsents) {
  struct Case {
    const char* name;
    std::optional<ComplianceType> compliance;
    std::map<std::string, ConsentStatus> stored;
    bool analytics;        // purposes 1 and 2
    bool personalization;  // purpose 1
  } cases[] = {
      {"opt-out, nothing stored", kOptOut, {}, true, true},
      {"opt-out, one withdrawn", kOptOut, {{"2", W}}, false, true},
      {"opt-in, nothing stored", kOptIn, {}, false, false},
      {"opt-in, all granted", kOptIn, {{"1", G}, {"2", G}}, true, true},
      {"notice-only, one not determined", {}, {{"1", N}}, false, false},
      {"opt-in, one granted one missing", kOptIn, {{"1", G}}, false, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    UserDefaultManager::removeAllConsents();
    if (c.compliance) UserDefaultManager::setComplianceType(*c.compliance);
    for (const auto& [key, status] : c.stored) UserDefaultManager::setPurposeConsent(key, status);
    GcmConfig gcm;
    gcm.defaultMapping = mapping(Ids{1, 2}, Ids{}, Ids{1});
    // Empty and absent lists deny in the hand-off and are left out of the query.
    EXPECT_EQ(Helper::consentMap(*gcm.defaultMapping),
              (Helper::ConsentMap{{analyticsStorage, c.analytics},
                                  {adStorage, false},
                                  {adUserData, false},
                                  {adPersonalization, c.personalization}}));
    EXPECT_EQ(Helper::consentStatuses(gcm, ""),
              (Statuses{{analyticsStorage, c.analytics ? G : D},
                        {adPersonalization, c.personalization ? G : D}}));
  }
}

TEST_F(GcmTest, HandOffOnlyWhenEnabledAndComplete) {
  UserDefaultManager::setComplianceType(kOptOut);
  MainConfiguration document;
  document.isGcmEnabled = true;
  document.purposes = std::vector<Purpose>{};
  document.gcmConfig = config({{"US, CA", mapping(Ids{1})}});
  struct Case {
    const char* name;
    std::function<void(MainConfiguration&)> change;
    std::optional<std::string> location;
    const char* logged;  // nullptr: nothing at all
  } cases[] = {
      {"absent switch", [](MainConfiguration& d) { d.isGcmEnabled.reset(); }, "US", nullptr},
      {"switched off", [](MainConfiguration& d) { d.isGcmEnabled = false; }, "US", nullptr},
      {"no gcm config", [](MainConfiguration& d) { d.gcmConfig.reset(); }, "US", nullptr},
      {"no purposes", [](MainConfiguration& d) { d.purposes.reset(); }, "US", nullptr},
      {"no mapping, no location", [](MainConfiguration& d) { d.gcmConfig = GcmConfig{}; },
       std::nullopt,
       "updateFirebaseConsent(mainConfiguration:location:) - No GCM mapping found for location: "
       "nil"},
      {"no mapping", [](MainConfiguration& d) { d.gcmConfig = GcmConfig{}; }, "DE",
       "No GCM mapping found for location: DE"},
      {"handed off", [](MainConfiguration&) {}, "CA",
       "setFirebaseConsent(consentMap:) - Firebase consent updated successfully: "
       "[analytics_storage: true, ad_storage: false, ad_user_data: false, ad_personalization: "
       "false]"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    MainConfiguration copy = document;
    c.change(copy);
    log_.clear();
    Helper::updateFirebaseConsent(&copy, c.location);
    EXPECT_EQ(c.logged ? log_.count(c.logged) : log_.messages().size(), c.logged ? 1u : 0u);
  }
  ASSERT_EQ(payloads_.size(), 1u);
  EXPECT_EQ(payloads_[0], (std::map<std::string, std::string>{{"analytics_storage", "granted"},
                                                              {"ad_storage", "denied"},
                                                              {"ad_user_data", "denied"},
                                                              {"ad_personalization", "denied"}}));
  Helper::updateFirebaseConsent(nullptr, "US");
  EXPECT_EQ(payloads_.size(), 1u);
  // Without a handler of the host's, Firebase is looked for in the process.
  scoped_.platform().setConsentModeHandler(nullptr);
  log_.clear();
  Helper::setFirebaseConsent({{adStorage, true}});
  EXPECT_EQ(log_.count("[DEBUG]"), 1u);
  EXPECT_TRUE(
      log_.contains("setFirebaseConsent(consentMap:) - Firebase Analytics not found in project"));
}

}  // namespace
}  // namespace pactivo::detail
