// The texts of the enumerations the JSON codec does not carry, the reduction
// of permission states, the keys, and the normalisation of the host's options.
// (The raw values of the JSON-coded types are pinned in json_codec_test.cc.)
#include <gtest/gtest.h>

#include "pactivo/enums.h"
#include "pactivo/lumari_key.h"
#include "pactivo/options.h"

namespace pactivo {
namespace {

// Texts match exactly, case included; unknown ones and out-of-range numbers
// give nothing.
TEST(Enums, RawValuesAreExact) {
  EXPECT_EQ(std::tuple(fromRawValue<LogLevel>("WARNING"), fromRawValue<Mode>("live"),
                       rawValue(HttpMethod::delete_), rawValue(HttpMethod::put)),
            std::tuple(LogLevel::warning, Mode::live, "delete", "PUT"));
  EXPECT_FALSE(fromRawValue<LogLevel>("warning") || fromRawValue<Mode>("Live") ||
               fromRawValue<HttpMethod>("DELETE") || sdkStatusFromRawValue(-1) ||
               sdkStatusFromRawValue(3));
  std::string texts;  // by raw value
  for (int raw : {0, 1, 2}) texts += std::string(status(sdkStatusFromRawValue(raw).value())) + "|";
  EXPECT_EQ(texts, "SDK CDN is ready to use!|SDK CDN is not available!|fetching SDK CDN...|");
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
  using K = LumariKey;
  std::string kinds;  // the case index of each, its raw text kept whatever the case
  for (const char* raw : {"NSCameraUsageDescription", "NSCameraUsageDescriptionX",
                          "nscamerausagedescription", "NFCReaderUsageDescription", ""}) {
    kinds += std::to_string(K::fromRawValue(raw).caseIndex()) + " ";
    EXPECT_EQ(K::fromRawValue(raw).rawValue(), raw);
  }
  EXPECT_EQ(kinds, "3 28 28 27 28 ");
  EXPECT_EQ(K(K::systemExtensionUsageDescription).caseIndex(), 26);
  // A custom key spelled like a fixed one is still custom.
  EXPECT_NE(K::makeCustom("NSCameraUsageDescription"), K(K::cameraUsageDescription));
  EXPECT_TRUE(K::makeCustom("a") == K::fromRawValue("a") &&
              K::makeCustom("a") != K::makeCustom("b"));
  std::hash<K> hash;
  EXPECT_EQ(hash(K::makeCustom("a")), hash(K::fromRawValue("a")));
  EXPECT_NE(hash(K::cameraUsageDescription), hash(K::microphoneUsageDescription));
}

TEST(OptionsTest, Normalisation) {
  const struct {
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
    EXPECT_EQ(std::tuple(options.consentsCheckInterval, options.languageCode, options.mode),
              std::tuple(c.stored, c.storedLanguage, c.testing ? Mode::draft : Mode::live));
  }
}

}  // namespace
}  // namespace pactivo
