#include "document_generator.h"

#include <string>

namespace pactivo::bench {
namespace {

LocalizedText texts(int languages, const std::string& stem, int n) {
  std::string id = std::to_string(n);
  LocalizedText text{{"en", stem + " " + id + " in English, long enough to be realistic"},
                     {"de", stem + " " + id + " auf Deutsch, lang genug für die Wirklichkeit"},
                     {"fr", stem + " " + id + " en français, assez long pour être réaliste"}};
  if (languages > 3) text.set("it", stem + " " + id + " in italiano, abbastanza lungo");
  return text;
}

std::string base64Logo(int n, std::size_t bytes = 6000) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string logo(bytes, 'A');
  for (std::size_t i = 0; i < logo.size(); ++i) logo[i] = kAlphabet[(i * 7 + n) % 64];
  return logo;
}

}  // namespace

MainConfiguration generateConfiguration(int purposes, int logoEvery, int languages,
                                        std::size_t logoBytes) {
  MainConfiguration config;
  config.id = "generated";
  if (logoBytes > 0) config.logoBase64 = base64Logo(0, logoBytes);
  config.version = 7;
  config.token = "token";
  config.isATTEnabled = true;
  config.isGcmEnabled = true;
  config.reConsentEnabled = true;
  config.purposes.emplace();
  ATTConfig att;
  att.purposeIds.emplace();
  DefaultMapping mapping;
  mapping.analyticsStorage.emplace();
  mapping.adStorage.emplace();
  for (int p = 1; p <= purposes; ++p) {
    Purpose purpose;
    purpose.purposeId = p;
    purpose.purposeName = texts(languages, "Purpose", p);
    purpose.purposeDescription = texts(languages, "What purpose does", p);
    purpose.consentStatus = ConsentStatus::notDetermined;
    purpose.disableOptOut = p % 10 == 0;
    purpose.optOutText = texts(languages, "Opt out of", p);
    purpose.sdks.emplace();
    for (int s = 0; s < 3; ++s) {
      int id = p * 10 + s;
      SDK sdk;
      sdk.sdkId = id;
      sdk.namespaceId = "com.example.sdk" + std::to_string(id);
      sdk.sdkName = texts(languages, "SDK", id);
      sdk.sdkDescription = texts(languages, "What the SDK does", id);
      sdk.vendor = "Vendor " + std::to_string(id % 17);
      sdk.website = "https://vendor.example.com/" + std::to_string(id);
      sdk.matchedBy = std::vector<std::string>{"lib" + std::to_string(id) + ".so"};
      sdk.collectingData = s != 0;
      sdk.releaseDate = "2024-05-01";
      sdk.license = "Proprietary";
      if (logoEvery > 0 && id % logoEvery == 0) sdk.logoBase64 = base64Logo(id);
      purpose.sdks->push_back(std::move(sdk));
    }
    if (p % 7 == 0) att.purposeIds->push_back(p);
    (p % 2 ? mapping.analyticsStorage : mapping.adStorage)->push_back(p);
    config.purposes->push_back(std::move(purpose));
  }
  config.attConfig = att;
  config.permissions.emplace();
  SettingsPrompt prompt;
  prompt.permissions.emplace();
  for (int k = 0; k < LumariKey::kFixedCaseCount; ++k) {
    AppPermission permission;
    permission.id = k;
    LumariKey key(static_cast<LumariKey::Case>(k));
    permission.permissionId = key;
    permission.name = std::string(key.rawValue());
    permission.nameMap = texts(languages, "Permission", k);
    permission.description = texts(languages, "Why we ask for permission", k);
    (*prompt.permissions)[std::string(key.rawValue())] = k % 2 == 0;
    config.permissions->push_back(std::move(permission));
  }
  config.settingPrompt = prompt;
  ConsentBannerConfig banner;
  for (const char* name : {"gdpr", "ccpa", "notice"}) {
    BannerConfig category;
    category.name = name;
    category.complianceType = ComplianceType::optIn;
    category.accept = texts(languages, "Accept", 1);
    category.reject = texts(languages, "Reject", 1);
    category.bannerText = texts(languages, "Banner text", 1);
    banner.categories[name] = category;
    banner.namesMap[name] = name;
  }
  banner.locations = {{"DE", "gdpr"}, {"US-CA", "ccpa"}, {"default", "notice"}};
  config.bannerConfig = banner;
  GcmConfig gcm;
  gcm.defaultMapping = mapping;
  gcm.regionOverrides = std::map<std::string, DefaultMapping>{{"US, CA", mapping}};
  config.gcmConfig = gcm;
  return config;
}

}  // namespace pactivo::bench
