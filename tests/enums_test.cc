#include <gtest/gtest.h>

#include "pactivo/enums.h"
#include "pactivo/lumari_key.h"
#include "pactivo/options.h"

namespace pactivo {
namespace {

TEST(Enums, RawValuesRoundTripExactly) {
  struct Case {
    std::string_view raw;
    std::optional<ConsentStatus> expected;
  } cases[] = {
      {"granted", ConsentStatus::granted},
      {"declined", ConsentStatus::declined},
      {"not_determined", ConsentStatus::notDetermined},
      {"withdrawn", ConsentStatus::withDrawn},
      {"withDrawn", std::nullopt},
      {"Granted", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(fromRawValue<ConsentStatus>(c.raw), c.expected) << c.raw;
    if (c.expected) {
      EXPECT_EQ(rawValue(*c.expected), c.raw);
    }
  }
}

TEST(Enums, OtherStringBackedEnumerations) {
  EXPECT_EQ(rawValue(ComplianceType::noticeOnly), "notice-only");
  EXPECT_EQ(fromRawValue<ComplianceType>("opt_in"), std::nullopt);
  EXPECT_EQ(fromRawValue<ComplianceType>("opt-out"), ComplianceType::optOut);
  EXPECT_EQ(rawValue(GoogleConsentType::adUserData), "ad_user_data");
  EXPECT_EQ(fromRawValue<LogLevel>("WARNING"), LogLevel::warning);
  EXPECT_EQ(fromRawValue<LogLevel>("warning"), std::nullopt);
  EXPECT_EQ(fromRawValue<Mode>("live"), Mode::live);
  EXPECT_EQ(fromRawValue<Mode>("Live"), std::nullopt);
  EXPECT_EQ(rawValue(HttpMethod::delete_), "delete");
  EXPECT_EQ(rawValue(HttpMethod::put), "PUT");
  EXPECT_EQ(fromRawValue<HttpMethod>("DELETE"), std::nullopt);
  EXPECT_EQ(rawValue(PermissionStatus::authorizedWhenInUse), "Authorized When In Use");
  EXPECT_EQ(rawValue(PurposeStatus::notDetermined), "Not Determined");
  EXPECT_EQ(fromRawValue<ButtonShape>("edgeless"), ButtonShape::edgeless);
  EXPECT_EQ(fromRawValue<BannerPosition>("top"), std::nullopt);
}

TEST(Enums, SdkStatusValuesAndTexts) {
  EXPECT_EQ(sdkStatusFromRawValue(0), SDKStatus::available);
  EXPECT_EQ(sdkStatusFromRawValue(1), SDKStatus::unavailable);
  EXPECT_EQ(sdkStatusFromRawValue(2), SDKStatus::fetching);
  EXPECT_EQ(sdkStatusFromRawValue(3), std::nullopt);
  EXPECT_EQ(sdkStatusFromRawValue(-1), std::nullopt);
  EXPECT_EQ(status(SDKStatus::available), "SDK CDN is ready to use!");
  EXPECT_EQ(status(SDKStatus::unavailable), "SDK CDN is not available!");
  EXPECT_EQ(status(SDKStatus::fetching), "fetching SDK CDN...");
}

TEST(Enums, PermissionStatusReduction) {
  struct Case {
    PermissionStatus status;
    ConsentStatus consent;
  } cases[] = {
      {PermissionStatus::authorized, ConsentStatus::granted},
      {PermissionStatus::authorizedAlways, ConsentStatus::granted},
      {PermissionStatus::authorizedWhenInUse, ConsentStatus::granted},
      {PermissionStatus::denied, ConsentStatus::declined},
      {PermissionStatus::restricted, ConsentStatus::declined},
      {PermissionStatus::notDetermined, ConsentStatus::notDetermined},
      {PermissionStatus::unknown, ConsentStatus::notDetermined},
      {PermissionStatus::provisional, ConsentStatus::granted},
      {PermissionStatus::limited, ConsentStatus::granted},
      {PermissionStatus::notAvailable, ConsentStatus::notDetermined},
      {PermissionStatus::fullAccess, ConsentStatus::granted},
      {PermissionStatus::writeOnly, ConsentStatus::granted},
      {PermissionStatus::ephemeral, ConsentStatus::granted},
  };
  for (const auto& c : cases) EXPECT_EQ(toConsentStatus(c.status), c.consent) << rawValue(c.status);
}

TEST(LumariKeyTest, ConstructionNeverFailsAndMatchesExactly) {
  struct Case {
    std::string_view raw;
    LumariKey::Case expected;
  } cases[] = {
      {"NSCameraUsageDescription", LumariKey::cameraUsageDescription},
      {"NSCameraUsageDescriptionX", LumariKey::custom},
      {"nscamerausagedescription", LumariKey::custom},
      {"NFCReaderUsageDescription", LumariKey::nfcReaderUsageDescription},
      {"NSLocationWhenInUseUsageDescription", LumariKey::locationWhenInUseUsageDescription},
      {"", LumariKey::custom},
  };
  for (const auto& c : cases) {
    LumariKey key = LumariKey::fromRawValue(c.raw);
    EXPECT_EQ(key.kind(), c.expected) << c.raw;
    EXPECT_EQ(key.rawValue(), c.raw);
  }
  EXPECT_EQ(LumariKey(LumariKey::systemExtensionUsageDescription).caseIndex(), 26);
  EXPECT_EQ(LumariKey::fromRawValue("x").caseIndex(), 28);
}

TEST(LumariKeyTest, CustomSpellingOfFixedKeyIsNotEqual) {
  LumariKey custom = LumariKey::makeCustom("NSCameraUsageDescription");
  LumariKey fixed = LumariKey::cameraUsageDescription;
  EXPECT_NE(custom, fixed);
  EXPECT_EQ(LumariKey::makeCustom("a"), LumariKey::fromRawValue("a"));
  EXPECT_NE(LumariKey::makeCustom("a"), LumariKey::makeCustom("b"));
  std::hash<LumariKey> hash;
  EXPECT_EQ(hash(LumariKey::makeCustom("a")), hash(LumariKey::fromRawValue("a")));
  EXPECT_NE(hash(LumariKey::cameraUsageDescription), hash(LumariKey::microphoneUsageDescription));
}

ConsentSDKOptions makeOptions(std::int64_t interval, std::optional<std::string> language,
                              bool testing = false) {
  return ConsentSDKOptions("https://app/", "https://cdn/", "t", "a", testing, LogLevel::info,
                           interval, std::nullopt, std::move(language), std::nullopt,
                           WebViewConfig({}, std::nullopt));
}

TEST(OptionsTest, Normalisation) {
  struct Case {
    std::int64_t interval;
    std::int64_t stored;
  } intervals[] = {{-5, 60}, {0, 60}, {59, 60}, {60, 60}, {61, 61}, {86400 * 365, 86400 * 365}};
  for (const auto& c : intervals) {
    EXPECT_EQ(makeOptions(c.interval, std::nullopt).consentsCheckInterval, c.stored) << c.interval;
  }
  EXPECT_EQ(makeOptions(60, "EN").languageCode, "en");
  EXPECT_EQ(makeOptions(60, "Pt-BR").languageCode, "pt-br");
  EXPECT_EQ(makeOptions(60, "").languageCode, "");
  EXPECT_EQ(makeOptions(60, std::nullopt).languageCode, std::nullopt);
  EXPECT_EQ(makeOptions(60, std::nullopt, true).mode, Mode::draft);
  EXPECT_EQ(makeOptions(60, std::nullopt, false).mode, Mode::live);
}

}  // namespace
}  // namespace pactivo
