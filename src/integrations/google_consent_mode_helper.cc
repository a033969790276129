#include "integrations/google_consent_mode_helper.h"

#include <sstream>
#include <vector>

#include "integrations/firebase_analytics.h"
#include "pactivo/logger.h"
#include "pactivo/platform.h"
#include "pactivo/user_default_manager.h"
#include "purposes/purpose_manager.h"

namespace pactivo::detail {
namespace {

using Field = std::optional<std::vector<std::int64_t>> DefaultMapping::*;

struct MappingField {
  GoogleConsentType type;
  Field field;
};
constexpr MappingField kFields[] = {
    {GoogleConsentType::analyticsStorage, &DefaultMapping::analyticsStorage},
    {GoogleConsentType::adStorage, &DefaultMapping::adStorage},
    {GoogleConsentType::adUserData, &DefaultMapping::adUserData},
    {GoogleConsentType::adPersonalization, &DefaultMapping::adPersonalization},
};

std::string trimmed(std::string_view text) {
  std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return "";
  std::size_t end = text.find_last_not_of(" \t");
  return std::string(text.substr(begin, end - begin + 1));
}

std::vector<std::string> splitCodes(const std::string& key) {
  std::vector<std::string> codes;
  std::size_t start = 0;
  while (true) {
    std::size_t comma = key.find(',', start);
    codes.push_back(trimmed(std::string_view(key).substr(start, comma - start)));
    if (comma == std::string::npos) return codes;
    start = comma + 1;
  }
}

// The text after the last "#", or nullopt when there is none.
std::optional<std::string> afterLastHash(const std::string& location) {
  std::size_t hash = location.rfind('#');
  if (hash == std::string::npos) return std::nullopt;
  return location.substr(hash + 1);
}

const DefaultMapping* findByCode(const std::map<std::string, DefaultMapping>& overrides,
                                 const std::string& code) {
  for (const auto& [key, mapping] : overrides) {
    for (const std::string& candidate : splitCodes(key)) {
      if (candidate == code) return &mapping;
    }
  }
  return nullptr;
}

std::string describe(const GoogleConsentModeHelper::ConsentMap& map) {
  std::ostringstream text;
  text << '[';
  bool first = true;
  for (const auto& [type, granted] : map) {
    text << (first ? "" : ", ") << rawValue(type) << ": " << (granted ? "true" : "false");
    first = false;
  }
  text << ']';
  return text.str();
}

}  // namespace

void GoogleConsentModeHelper::updateFirebaseConsent(const MainConfiguration* config,
                                                    const std::optional<std::string>& location) {
  if (config == nullptr || !config->isGcmEnabled.value_or(false) || !config->gcmConfig ||
      !config->purposes) {
    return;
  }
  std::optional<DefaultMapping> mapping = selectMapping(*config->gcmConfig, location);
  if (!mapping) {
    SDKLogger::shared().log("No GCM mapping found for location: " + location.value_or("nil"),
                            LogLevel::debug, "updateFirebaseConsent(mainConfiguration:location:)");
    return;
  }
  setFirebaseConsent(consentMap(*mapping));
}

std::optional<DefaultMapping> GoogleConsentModeHelper::selectMapping(
    const GcmConfig& config, const std::optional<std::string>& location) {
  if (!location || location->empty() || !config.regionOverrides ||
      config.regionOverrides->empty()) {
    return config.defaultMapping;
  }
  if (const DefaultMapping* exact = findByCode(*config.regionOverrides, *location)) return *exact;
  if (auto region = afterLastHash(*location)) {
    if (const DefaultMapping* found = findByCode(*config.regionOverrides, *region)) return *found;
  }
  return config.defaultMapping;
}

GoogleConsentModeHelper::ConsentMap GoogleConsentModeHelper::consentMap(
    const DefaultMapping& mapping) {
  ConsentMap map;
  for (const MappingField& entry : kFields) {
    const auto& ids = mapping.*entry.field;
    bool granted = ids && !ids->empty();
    if (granted) {
      for (std::int64_t id : *ids) {
        const bool optIn = UserDefaultManager::getComplianceType() == ComplianceType::optIn;
        std::optional<ConsentStatus> stored =
            UserDefaultManager::getStoredConsent(std::to_string(id));
        const bool passes = stored ? *stored == ConsentStatus::granted : !optIn;
        if (!passes) {
          granted = false;
          break;
        }
      }
    }
    map[entry.type] = granted;
  }
  return map;
}

void GoogleConsentModeHelper::setFirebaseConsent(const ConsentMap& consentMap) {
  std::map<std::string, std::string> payload;
  for (const auto& [type, granted] : consentMap) {
    payload[std::string(rawValue(type))] = granted ? "granted" : "denied";
  }
  if (Platform::ConsentModeHandler handler = currentPlatform()->consentModeHandler()) {
    handler(payload);
  } else {
    switch (FirebaseAnalytics::setConsent(consentMap)) {
      case FirebaseAnalytics::Outcome::sent:
        break;
      case FirebaseAnalytics::Outcome::notFound:
        SDKLogger::shared().log("Firebase Analytics not found in project", LogLevel::debug,
                                "setFirebaseConsent(consentMap:)");
        return;
      case FirebaseAnalytics::Outcome::methodNotFound:
        SDKLogger::shared().log("Firebase Analytics setConsent method not found", LogLevel::debug,
                                "setFirebaseConsent(consentMap:)");
        return;
    }
  }
  SDKLogger::shared().log("Firebase consent updated successfully: " + describe(consentMap),
                          LogLevel::debug, "setFirebaseConsent(consentMap:)");
}

std::map<GoogleConsentType, ConsentStatus> GoogleConsentModeHelper::consentStatuses(
    const GcmConfig& config, const std::string& location) {
  std::optional<DefaultMapping> mapping = config.defaultMapping;
  if (config.regionOverrides) {
    auto it = config.regionOverrides->find(location);
    if (it == config.regionOverrides->end()) {
      if (auto region = afterLastHash(location)) it = config.regionOverrides->find(*region);
    }
    if (it != config.regionOverrides->end()) mapping = it->second;
  }
  std::map<GoogleConsentType, ConsentStatus> result;
  if (!mapping) return result;
  for (const MappingField& entry : kFields) {
    const auto& ids = *mapping.*entry.field;
    if (!ids || ids->empty()) continue;
    bool allGranted = true;
    for (std::int64_t id : *ids) {
      if (UserDefaultManager::getPurposeConsent(
              std::to_string(id), PurposeManager::complianceDefault()) != ConsentStatus::granted) {
        allGranted = false;
      }
    }
    result[entry.type] = allGranted ? ConsentStatus::granted : ConsentStatus::declined;
  }
  return result;
}

}  // namespace pactivo::detail
