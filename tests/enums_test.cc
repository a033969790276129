// The exact texts of the string-backed enumerations and keys, and the
// normalisation of the host's options.
#include <gtest/gtest.h>

#include "pactivo/enums.h"
#include "pactivo/lumari_key.h"
#include "pactivo/options.h"

namespace pactivo {
namespace {

TEST(Enums, RawValuesAreExact) {
  for (auto [raw, expected] : {std::pair{"granted", ConsentStatus::granted},
                               {"declined", ConsentStatus::declined},
                               {"not_determined", ConsentStatus::notDetermined},
                               {"withdrawn", ConsentStatus::withDrawn}}) {
    EXPECT_EQ(fromRawValue<ConsentStatus>(raw), expected) << raw;
    EXPECT_EQ(rawValue(expected), raw);
  }
  for (const char* bad : {"withDrawn", "Granted", ""}) {
    EXPECT_EQ(fromRawValue<ConsentStatus>(bad), std::nullopt) << bad;
  }
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
  for (int raw = -1; raw <= 3; ++raw) {
    auto status = sdkStatusFromRawValue(raw);
    EXPECT_EQ(status.has_value(), raw >= 0 && raw <= 2) << raw;
    EXPECT_EQ(static_cast<int>(status.value_or(SDKStatus{-1})), status ? raw : -1);
  }
  EXPECT_EQ(status(SDKStatus::available), "SDK CDN is ready to use!");
  EXPECT_EQ(status(SDKStatus::unavailable), "SDK CDN is not available!");
  EXPECT_EQ(status(SDKStatus::fetching), "fetching SDK CDN...");
}

TEST(Enums, PermissionStatusReduction) {
  using P = PermissionStatus;
  using C = ConsentStatus;
  for (auto [status, consent] : {std::pair{P::authorized, C::granted},
                                 {P::authorizedAlways, C::granted},
                                 {P::authorizedWhenInUse, C::granted},
                                 {P::denied, C::declined},
                                 {P::restricted, C::declined},
                                 {P::notDetermined, C::notDetermined},
                                 {P::unknown, C::notDetermined},
                                 {P::provisional, C::granted},
                                 {P::limited, C::granted},
                                 {P::notAvailable, C::notDetermined},
                                 {P::fullAccess, C::granted},
                                 {P::writeOnly, C::granted},
                                 {P::ephemeral, C::granted}}) {
    EXPECT_EQ(toConsentStatus(status), consent) << rawValue(status);
  }
}

TEST(LumariKeyTest, ConstructionNeverFailsAndMatchesExactly) {
  for (auto [raw, expected] :
       {std::pair{"NSCameraUsageDescription", LumariKey::cameraUsageDescription},
        {"NSCameraUsageDescriptionX", LumariKey::custom},
        {"nscamerausagedescription", LumariKey::custom},
        {"NFCReaderUsageDescription", LumariKey::nfcReaderUsageDescription},
        {"NSLocationWhenInUseUsageDescription", LumariKey::locationWhenInUseUsageDescription},
        {"", LumariKey::custom}}) {
    LumariKey key = LumariKey::fromRawValue(raw);
    EXPECT_EQ(key.kind(), expected) << raw;
    EXPECT_EQ(key.rawValue(), raw);
  }
  EXPECT_EQ(LumariKey(LumariKey::systemExtensionUsageDescription).caseIndex(), 26);
  EXPECT_EQ(LumariKey::fromRawValue("x").caseIndex(), 28);
  // A custom key spelled like a fixed one is still custom.
  EXPECT_NE(LumariKey::makeCustom("NSCameraUsageDescription"),
            LumariKey(LumariKey::cameraUsageDescription));
  EXPECT_EQ(LumariKey::makeCustom("a"), LumariKey::fromRawValue("a"));
  EXPECT_NE(LumariKey::makeCustom("a"), LumariKey::makeCustom("b"));
  std::hash<LumariKey> hash;
  EXPECT_EQ(hash(LumariKey::makeCustom("a")), hash(LumariKey::fromRawValue("a")));
  EXPECT_NE(hash(LumariKey::cameraUsageDescription), hash(LumariKey::microphoneUsageDescription));
}

TEST(OptionsTest, Normalisation) {
  auto make = [](std::int64_t interval, std::optional<std::string> language, bool testing) {
    return ConsentSDKOptions("https://app/", "https://cdn/", "t", "a", testing, LogLevel::info,
                             interval, std::nullopt, std::move(language), std::nullopt,
                             WebViewConfig({}, std::nullopt));
  };
  // The check interval has a 60 s floor.
  for (auto [interval, stored] : {std::pair<std::int64_t, std::int64_t>{-5, 60},
                                  {0, 60},
                                  {59, 60},
                                  {60, 60},
                                  {61, 61},
                                  {86400 * 365, 86400 * 365}}) {
    EXPECT_EQ(make(interval, std::nullopt, false).consentsCheckInterval, stored) << interval;
  }
  EXPECT_EQ(make(60, "EN", false).languageCode, "en");
  EXPECT_EQ(make(60, "Pt-BR", false).languageCode, "pt-br");
  EXPECT_EQ(make(60, "", false).languageCode, "");
  EXPECT_EQ(make(60, std::nullopt, false).languageCode, std::nullopt);
  EXPECT_EQ(make(60, std::nullopt, true).mode, Mode::draft);
  EXPECT_EQ(make(60, std::nullopt, false).mode, Mode::live);
}

}  // namespace
}  // namespace pactivo
