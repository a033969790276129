// The texts of the enumerations the JSON codec does not carry, the reduction
// of permission states, the keys, and the normalisation of the host's options.
// (The raw values of the JSON-coded types are pinned in json_codec_test.cc.)
#include <gtest/gtest.h>

#include "pactivo/enums.h"
#include "pactivo/lumari_key.h"
#include "pactivo/options.h"

namespace pactivo {
namespace {

TEST(Enums, RawValuesAreExact) {
  EXPECT_EQ(fromRawValue<LogLevel>("WARNING"), LogLevel::warning);
  EXPECT_EQ(fromRawValue<LogLevel>("warning"), std::nullopt);
  EXPECT_EQ(fromRawValue<Mode>("live"), Mode::live);
  EXPECT_EQ(fromRawValue<Mode>("Live"), std::nullopt);
  EXPECT_EQ(rawValue(HttpMethod::delete_), "delete");
  EXPECT_EQ(rawValue(HttpMethod::put), "PUT");
  EXPECT_EQ(fromRawValue<HttpMethod>("DELETE"), std::nullopt);
  EXPECT_EQ(sdkStatusFromRawValue(-1), std::nullopt);
  EXPECT_EQ(sdkStatusFromRawValue(3), std::nullopt);
  const char* texts[] = {"SDK CDN is ready to use!", "SDK CDN is not available!",
                         "fetching SDK CDN..."};  // by raw value
  for (int raw : {0, 1, 2}) EXPECT_EQ(status(sdkStatusFromRawValue(raw).value()), texts[raw]);
}

TEST(Enums, PermissionStatusReduction) {
  // Per case in order (Authorized ... Ephemeral): granted (G), declined (D) or
  // not determined (N), the first three cases of ConsentStatus.
  constexpr std::string_view kConsent = "GGGDDNNGGNGGG";
  for (std::size_t i = 0; i < kConsent.size(); ++i) {
    const auto status = static_cast<PermissionStatus>(i);
    const auto consent = static_cast<ConsentStatus>(std::string_view("GDN").find(kConsent[i]));
    EXPECT_EQ(toConsentStatus(status), consent) << rawValue(status);
  }
}

TEST(LumariKeyTest, ConstructionNeverFailsAndMatchesExactly) {
  for (auto [raw, expected] :
       {std::pair{"NSCameraUsageDescription", LumariKey::cameraUsageDescription},
        {"NSCameraUsageDescriptionX", LumariKey::custom},
        {"nscamerausagedescription", LumariKey::custom},
        {"NFCReaderUsageDescription", LumariKey::nfcReaderUsageDescription},
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
  struct Case {
    std::int64_t interval, stored;  // the check interval has a 60 s floor
    std::optional<std::string> language, storedLanguage;
    bool testing;
  } cases[] = {
      {-5, 60, "EN", "en", false},
      {0, 60, "Pt-BR", "pt-br", true},
      {59, 60, "", "", false},
      {60, 60, std::nullopt, std::nullopt, false},
      {61, 61, std::nullopt, std::nullopt, true},
      {86400 * 365, 86400 * 365, "de", "de", false},
  };
  for (const auto& c : cases) {
    ConsentSDKOptions options("https://app/", "https://cdn/", "t", "a", c.testing, LogLevel::info,
                              c.interval, std::nullopt, c.language, std::nullopt,
                              WebViewConfig({}, std::nullopt));
    EXPECT_EQ(options.consentsCheckInterval, c.stored) << c.interval;
    EXPECT_EQ(options.languageCode, c.storedLanguage) << c.interval;
    EXPECT_EQ(options.mode, c.testing ? Mode::draft : Mode::live) << c.interval;
  }
}

}  // namespace
}  // namespace pactivo
