#include "permissions/permission_manager.h"

#include <algorithm>
#include <sstream>

#include "pactivo/locale_utils.h"
#include "pactivo/logger.h"
#include "pactivo/user_default_manager.h"
#include "platform/collation.h"
#include "platform/time.h"

namespace pactivo::detail {
namespace {

bool wasGranted(ConsentStatus status) {
  return status == ConsentStatus::granted || status == ConsentStatus::withDrawn;
}

std::string describe(const std::vector<PermissionConsent>& consents) {
  std::ostringstream text;
  text << '[';
  for (std::size_t i = 0; i < consents.size(); ++i) {
    const PermissionConsent& c = consents[i];
    text << (i ? ", " : "") << "PermissionConsent(permission: " << c.permission.rawValue()
         << ", consentStatus: " << rawValue(c.consentStatus) << ", timestamp: " << c.timestamp
         << ')';
  }
  text << ']';
  return text.str();
}

}  // namespace

PermissionManager::PermissionManager(const std::optional<std::vector<AppPermission>>& permissions,
                                     const std::optional<SettingsPrompt>& settingsPromptConfig)
    : permissions_(permissions ? &*permissions : nullptr),
      settingsPromptConfig_(settingsPromptConfig ? &*settingsPromptConfig : nullptr) {}

PermissionManager::CheckResult PermissionManager::checkPermissions() {
  SDKLogger::shared().log("Permissions consent checks executed.", LogLevel::info,
                          "checkPermissions()");
  CheckResult result;
  const std::vector<std::string> pending = UserDefaultManager::getPendingPermissions();
  if (permissions_) {
    for (const AppPermission& permission : *permissions_) {
      if (!permission.permissionId) continue;
      const LumariKey& key = *permission.permissionId;
      ConsentStatus current = getConsentByPermission(key);
      const ConsentStatus stored = UserDefaultManager::getPermissionConsent(key, current);
      if (wasGranted(stored) && current == ConsentStatus::declined) {
        current = ConsentStatus::withDrawn;
      }
      const std::int64_t now = currentTimeSeconds();
      const bool isPending =
          std::find(pending.begin(), pending.end(), key.rawValue()) != pending.end();
      if (isPending || stored != current) {
        UserDefaultManager::addPendingPermission(key);
        result.consents.emplace_back(key, current, now);
        result.changed = true;
      }
      // The stored consent always follows the platform.
      UserDefaultManager::setPermissionConsent(key, current);
    }
  }
  if (result.changed) {
    SDKLogger::shared().log("Changed Permissions: " + describe(result.consents), LogLevel::info,
                            "checkPermissions()");
  }
  return result;
}

std::vector<AppPermission> PermissionManager::getPermissions() {
  std::vector<AppPermission> copies;
  std::vector<std::string> names;
  if (permissions_) {
    for (const AppPermission& permission : *permissions_) {
      if (!permission.permissionId) continue;
      AppPermission copy = permission;
      copy.consentStatus = getConsentByPermission(*permission.permissionId);
      if (settingsPromptConfig_) {
        bool offered = false;
        if (const auto& flags = settingsPromptConfig_->permissions) {
          auto it = flags->find(std::string(permission.permissionId->rawValue()));
          offered = it != flags->end() && it->second;
        }
        copy.isSettingsPromptEnabled = offered;
      }
      names.push_back(LocaleUtils::localizedText(copy.nameMap));
      copies.push_back(std::move(copy));
    }
  }
  std::vector<AppPermission> ordered;
  ordered.reserve(copies.size());
  for (std::size_t index : localizedStandardOrder(names, LocaleUtils::currentLanguageCode())) {
    ordered.push_back(std::move(copies[index]));
  }
  return ordered;
}

void PermissionManager::recordConsent(PreferenceWriter& writer, const LumariKey& key,
                                      ConsentStatus consent, std::string_view consentGivenType) {
  const ConsentStatus stored =
      writer.getConsent(key.rawValue()).value_or(ConsentStatus::notDetermined);
  if (stored != consent) {
    if (wasGranted(stored) && consent == ConsentStatus::declined)
      consent = ConsentStatus::withDrawn;
    writer.setBool(keys::kArePermissionsChanged, true);
    writer.setInt64(keys::kPermissionsChangeTimestamp, currentTimeSeconds());
  }
  if (consentGivenType != kConsentNoAction) {
    writer.setString(keys::kConsentGivenType, consentGivenType);
  }
  writer.addPendingPermission(key);
  writer.setConsent(key.rawValue(), consent);
}

bool PermissionManager::updatePermissionConsent(const AppPermission& permission,
                                                ConsentStatus consent,
                                                std::string_view consentGivenType) {
  if (!permission.permissionId) return false;
  const LumariKey& key = *permission.permissionId;
  // A permission's consent is what the platform reports, nothing else.
  if (getConsentByPermission(key) != consent) return false;
  return updatePreferences(key.rawValue(), [&](PreferenceWriter& writer) {
    recordConsent(writer, key, consent, consentGivenType);
    return true;
  });
}

}  // namespace pactivo::detail
