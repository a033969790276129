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

// Empty and absent lists deny in the hand-off and are left out of the query.
TEST_F(GcmTest, DecisionFromStoredConsents) {
  GcmConfig gcm;
  gcm.defaultMapping = mapping(Ids{1, 2}, Ids{}, Ids{1});
  const struct {
    std::optional<ComplianceType> compliance;
    std::map<std::string, ConsentStatus> stored;
    bool analytics, personalization;  // purposes 1 and 2; purpose 1
  } cases[] = {
      {kOptOut, {}, true, true},         {kOptOut, {{"2", W}}, false, true},
      {kOptIn, {}, false, false},        {kOptIn, {{"1", G}, {"2", G}}, true, true},
      {{}, {{"1", N}}, false, false},  // notice-only
      {kOptIn, {{"1", G}}, false, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    UserDefaultManager::removeAllConsents();
    if (c.compliance) UserDefaultManager::setComplianceType(*c.compliance);
    for (const auto& [key, status] : c.stored) UserDefaultManager::setPurposeConsent(key, status);
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
  MainConfiguration full;
  full.isGcmEnabled = true;
  full.purposes = std::vector<Purpose>{};
  full.gcmConfig = config({{"US, CA", mapping(Ids{1})}});
  // Without the switch, the settings or the purposes: nothing at all.
  MainConfiguration off = full, absent = full, noConfig = full, noPurposes = full, unmapped = full;
  off.isGcmEnabled = false;
  absent.isGcmEnabled.reset();
  noConfig.gcmConfig.reset();
  noPurposes.purposes.reset();
  for (MainConfiguration* d :
       {&off, &absent, &noConfig, &noPurposes, static_cast<MainConfiguration*>(nullptr)}) {
    Helper::updateFirebaseConsent(d, "US");
  }
  EXPECT_TRUE(log_.messages().empty() && payloads_.empty()) << log_.text();
  unmapped.gcmConfig = GcmConfig{};
  Helper::updateFirebaseConsent(&unmapped, std::nullopt);
  Helper::updateFirebaseConsent(&unmapped, "DE");
  Helper::updateFirebaseConsent(&full, "CA");
  EXPECT_EQ(log_.count("updateFirebaseConsent(mainConfiguration:location:) - No GCM mapping found "
                       "for location: nil"),
            1u);
  EXPECT_EQ(log_.count("No GCM mapping found for location: DE"), 1u);
  EXPECT_EQ(log_.count("setFirebaseConsent(consentMap:) - Firebase consent updated successfully: "
                       "[analytics_storage: true, ad_storage: false, ad_user_data: false, "
                       "ad_personalization: false]"),
            1u);
  EXPECT_EQ(payloads_, (decltype(payloads_){{{"analytics_storage", "granted"},
                                             {"ad_storage", "denied"},
                                             {"ad_user_data", "denied"},
                                             {"ad_personalization", "denied"}}}));
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
