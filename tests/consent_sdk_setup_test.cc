#include <gtest/gtest.h>

#include <fstream>
#include <mutex>

#include "pactivo/consent_sdk.h"
#include "pactivo/locale_utils.h"
#include "pactivo/logger.h"
#include "pactivo/sdk_listener.h"
#include "pactivo/user_default_manager.h"
#include "sdk/consent_sdk_access.h"
#include "sdk/consent_sdk_impl.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

using testing::eventually;
using testing::LogCapture;
using testing::ScopedPlatform;

ConsentSDKOptions options(bool testing = false, std::optional<std::string> language = std::nullopt,
                          std::optional<std::string> subject = std::nullopt) {
  // Port 9 on loopback refuses at once, so setup's fetch ends quickly.
  return ConsentSDKOptions("http://127.0.0.1:9/", "http://127.0.0.1:9/", "t", "a", testing,
                           LogLevel::error, 60, std::move(subject), std::move(language),
                           std::nullopt, WebViewConfig({}, std::nullopt));
}

class SetupTest : public ::testing::Test {
 protected:
  std::filesystem::path cacheFile() const {
    return scoped_.dataDirectory() / "tessarin-sdk-cdn.json";
  }
  void writeCache() {
    std::filesystem::create_directories(scoped_.dataDirectory());
    std::ofstream(cacheFile()) << "{}";
    UserDefaultManager::setETag("\"v1\"");
  }
  bool cacheDiscarded() const {
    return !std::filesystem::exists(cacheFile()) && !UserDefaultManager::getETag();
  }

  ScopedPlatform scoped_;
  LogCapture log_;
};

TEST_F(SetupTest, ReconcilesModeLanguageAndSubject) {
  struct Case {
    const char* name;
    std::optional<std::string> lastMode;
    std::optional<std::string> storedLanguage;
    bool testing;
    std::optional<std::string> language;
    bool discarded;
  } cases[] = {
      {"first launch, live", std::nullopt, std::nullopt, false, std::nullopt, false},
      {"live after live", "live", "en", false, std::nullopt, false},
      {"live after draft", "draft", "en", false, std::nullopt, true},
      {"draft after live", "live", "en", true, std::nullopt, true},
      {"testing always discards", "draft", "en", true, std::nullopt, true},
      {"language changed", "live", "en", false, "DE", true},
      {"same language, other case", "live", "de", false, "DE", false},
      {"empty language keeps current", "live", "en", false, "", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    UserDefaultManager::removeAllConsents();
    LocaleUtils::setCurrentLanguageCode("en");
    if (c.lastMode) UserDefaultManager::setString(keys::kLastModeUsed, *c.lastMode);
    if (c.storedLanguage) UserDefaultManager::setString(keys::kLanguageCode, *c.storedLanguage);
    writeCache();
    {
      ConsentSDK sdk;
      sdk.setup(options(c.testing, c.language));
      EXPECT_EQ(cacheDiscarded(), c.discarded);
      EXPECT_EQ(UserDefaultManager::getString(keys::kLastModeUsed, ""),
                c.testing ? "draft" : "live");
      EXPECT_EQ(UserDefaultManager::getBool(keys::kIsBannerPresent), false);
      EXPECT_TRUE(UserDefaultManager::allEntries().size() > 0);
    }
  }
}

TEST_F(SetupTest, NonStringStoredLanguageIsIgnored) {
  UserDefaultManager::setInt(keys::kLanguageCode, 4);
  writeCache();
  ConsentSDK sdk;
  sdk.setup(options());
  EXPECT_FALSE(cacheDiscarded());
}

TEST_F(SetupTest, LanguageExceptionAppliesOnlyWithoutHostLanguage) {
  scoped_.platform().setPreferredLanguages({"mni-Beng-IN"});
  LocaleUtils::setCurrentLanguageCode(LocaleUtils::preferredLanguage().substr(0, 3));
  {
    ConsentSDK sdk;
    sdk.setup(options());
    EXPECT_EQ(LocaleUtils::currentLanguageCode(), "mni-mtei");
  }
  LocaleUtils::setCurrentLanguageCode("mni");
  {
    ConsentSDK sdk;
    sdk.setup(options(false, "FR"));
    EXPECT_EQ(LocaleUtils::currentLanguageCode(), "fr");
  }
}

TEST_F(SetupTest, SubjectIdentity) {
  ConsentSDK sdk;
  sdk.setup(options());
  std::string created = UserDefaultManager::getString(keys::kSubjectId, "");
  EXPECT_EQ(created.size(), 36u);
  sdk.setup(options());
  EXPECT_EQ(UserDefaultManager::getString(keys::kSubjectId, ""), created);
  sdk.setup(options(false, std::nullopt, "host-subject"));
  EXPECT_EQ(UserDefaultManager::getString(keys::kSubjectId, ""), "host-subject");
  // An empty host identity is stored, then replaced by a generated one.
  sdk.setup(options(false, std::nullopt, ""));
  std::string regenerated = UserDefaultManager::getString(keys::kSubjectId, "");
  EXPECT_EQ(regenerated.size(), 36u);
  EXPECT_NE(regenerated, created);
}

TEST_F(SetupTest, TestingModeTeardownRemovesAllConsents) {
  {
    ConsentSDK sdk;
    sdk.setup(options(true));
    UserDefaultManager::setPurposeConsent("1", ConsentStatus::granted);
  }
  EXPECT_EQ(UserDefaultManager::getStoredConsent("1"), std::nullopt);
  {
    ConsentSDK sdk;
    sdk.setup(options(false));
    UserDefaultManager::setPurposeConsent("1", ConsentStatus::granted);
  }
  EXPECT_EQ(UserDefaultManager::getStoredConsent("1"), ConsentStatus::granted);
}

TEST_F(SetupTest, SetupSetsLogLevel) {
  ConsentSDK sdk;
  sdk.setup(options());
  EXPECT_EQ(SDKLogger::shared().logLevel(), LogLevel::error);
}

class Recorder {
 public:
  std::function<void(SDKStatus)> callback() {
    return [this](SDKStatus s) {
      std::lock_guard lock(mutex_);
      seen_.push_back(s);
    };
  }
  std::vector<SDKStatus> seen() {
    std::lock_guard lock(mutex_);
    return seen_;
  }

 private:
  std::mutex mutex_;
  std::vector<SDKStatus> seen_;
};

TEST(ReadinessTest, ImmediateCallThenDeduplicatedChanges) {
  ScopedPlatform scoped;
  ConsentSDK sdk;
  SDKListener& status = *detail::ConsentSDKAccess::impl(sdk).sdkListener;
  Recorder first;
  sdk.isReady(first.callback());
  EXPECT_EQ(first.seen(), (std::vector{SDKStatus::unavailable}));
  status.setIsReady(SDKStatus::fetching);
  status.setIsReady(SDKStatus::fetching);
  status.setIsReady(SDKStatus::available);
  EXPECT_EQ(first.seen(),
            (std::vector{SDKStatus::unavailable, SDKStatus::fetching, SDKStatus::available}));
  EXPECT_EQ(sdk.getStatus(), SDKStatus::available);

  // A second callback ends the first; its immediate call does not count as a
  // delivery, so re-delivering `available` is suppressed.
  Recorder second;
  sdk.isReady(second.callback());
  status.setIsReady(SDKStatus::available);
  status.setIsReady(SDKStatus::unavailable);
  EXPECT_EQ(first.seen().size(), 3u);
  EXPECT_EQ(second.seen(), (std::vector{SDKStatus::available, SDKStatus::unavailable}));

  sdk.removeListeners();
  status.setIsReady(SDKStatus::fetching);
  EXPECT_EQ(second.seen().size(), 2u);
  EXPECT_EQ(sdk.getStatus(), SDKStatus::fetching);
}

TEST(ReadinessTest, CallbackMayReenterTheFacade) {
  ScopedPlatform scoped;
  ConsentSDK sdk;
  SDKListener& status = *detail::ConsentSDKAccess::impl(sdk).sdkListener;
  std::vector<SDKStatus> seen;
  sdk.isReady([&](SDKStatus s) {
    seen.push_back(sdk.getStatus());
    if (s == SDKStatus::available) sdk.removeListeners();
  });
  status.setIsReady(SDKStatus::available);
  status.setIsReady(SDKStatus::fetching);
  EXPECT_EQ(seen, (std::vector{SDKStatus::unavailable, SDKStatus::available}));
}

TEST(ReadinessTest, ObservationSemantics) {
  auto listener = std::make_shared<SDKListener>();
  auto prev = std::make_shared<SDKListener>();
  EXPECT_EQ(listener->isReady(), SDKStatus::unavailable);
  std::vector<std::pair<SDKStatus, SDKStatus>> changes;
  auto observation = SDKListener::observe(listener, [&](SDKStatus oldValue, SDKStatus newValue) {
    changes.push_back({oldValue, newValue});
  });
  listener->setIsReady(SDKStatus::fetching);
  listener->setIsReady(SDKStatus::fetching);
  EXPECT_EQ(changes.size(), 2u);  // the raw observer sees every write
  EXPECT_EQ(changes[0], std::make_pair(SDKStatus::unavailable, SDKStatus::fetching));
  observation.invalidate();
  listener->setIsReady(SDKStatus::available);
  EXPECT_EQ(changes.size(), 2u);
}

}  // namespace
}  // namespace pactivo
