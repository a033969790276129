// PermissionManager: device-permission consent kept in step with what the
// platform reports.
#ifndef PACTIVO_SRC_PERMISSIONS_PERMISSION_MANAGER_H_
#define PACTIVO_SRC_PERMISSIONS_PERMISSION_MANAGER_H_

#include <optional>
#include <string_view>
#include <vector>

#include "pactivo/configuration.h"
#include "pactivo/consent_records.h"
#include "persistence/preference_writer.h"

namespace pactivo::detail {

// Made from one document for one evaluation; reads the document in place, so
// the document must outlive the manager. Not shared between threads; two
// managers may run at once.
class PermissionManager {
 public:
  PermissionManager(const std::optional<std::vector<AppPermission>>& permissions,
                    const std::optional<SettingsPrompt>& settingsPromptConfig);
  // The permissions are not copied: a temporary list would not outlive the call.
  PermissionManager(std::optional<std::vector<AppPermission>>&&,
                    const std::optional<SettingsPrompt>&) = delete;

  struct CheckResult {
    bool changed = false;
    std::vector<PermissionConsent> consents;  // to report
  };
  // Probes every configured permission, stores what the platform reports,
  // and collects the pending or changed ones.
  CheckResult checkPermissions();

  // The configured permissions with their platform consent and settings
  // prompt flag, by localized name.
  std::vector<AppPermission> getPermissions();

  // The consent the platform reports for `key`. Never blocks.
  static ConsentStatus getConsentByPermission(const LumariKey& key);

  // Records `consent` only when it is what the platform reports; its flags,
  // time and pending entry commit with it, or (false) nothing does.
  static bool updatePermissionConsent(const AppPermission& permission, ConsentStatus consent,
                                      std::string_view consentGivenType);
  // The writes of updatePermissionConsent() for a consent the platform
  // reports, inside a transaction the caller holds.
  static void recordConsent(PreferenceWriter& writer, const LumariKey& key, ConsentStatus consent,
                            std::string_view consentGivenType);

 private:
  const std::vector<AppPermission>* const permissions_;  // null when absent
  const SettingsPrompt* const settingsPromptConfig_;     // null when absent
};

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_PERMISSIONS_PERMISSION_MANAGER_H_
