// The check cycle: the repeating timer, the network watcher, one consent
// check, and the default-value prefill.
#include "integrations/google_consent_mode_helper.h"
#include "pactivo/logger.h"
#include "pactivo/platform.h"
#include "pactivo/user_default_manager.h"
#include "permissions/permission_manager.h"
#include "platform/time.h"
#include "purposes/purpose_manager.h"
#include "sdk/consent_sdk_impl.h"

namespace pactivo {
namespace {

// The check interval when no options are set.
constexpr std::chrono::seconds kDefaultCheckInterval{1800};

// The values of an upload that come from the platform, read on the host's
// main thread.
struct DeviceValues {
  std::string device;
  std::string subjectId;
  std::string adId;
};

DeviceValues readDeviceValues() {
  DeviceValues values;
  auto platform = currentPlatform();
  platform->runOnMainThread([&] {
    values.device = platform->deviceName();
    values.subjectId = UserDefaultManager::getString(keys::kSubjectId, "");
    if (UserDefaultManager::getBool(keys::kIsAttEnabled)) {
      values.adId = platform->advertisingIdentifier();
    }
  });
  return values;
}

}  // namespace

void ConsentSDK::Impl::startTask(TaskSlot slot, std::function<void()> body) {
  detail::TaskHandle handle = tasks_.start(std::move(body));
  std::lock_guard lock(cycleMutex_);
  taskHandles_[slot] = std::move(handle);
}

void ConsentSDK::Impl::cancelTask(TaskSlot slot) {
  std::lock_guard lock(cycleMutex_);
  if (auto it = taskHandles_.find(slot); it != taskHandles_.end()) it->second.cancel();
}

void ConsentSDK::Impl::startRecurringConsentCheck() {
  std::optional<ConsentSDKOptions> options = this->options();
  const std::chrono::seconds interval =
      options ? std::chrono::seconds(options->consentsCheckInterval) : kDefaultCheckInterval;
  auto timer = std::make_unique<detail::RepeatingTimer>(*clock_, interval,
                                                        [this] { scheduleConsentCheck(); });
  std::unique_ptr<detail::RepeatingTimer> old;
  {
    std::lock_guard lock(cycleMutex_);
    if (closing_) return;
    old = std::exchange(recurringCheckTask_, std::move(timer));
  }
  // Stopped outside the lock: its thread may be starting a task right now.
}

void ConsentSDK::Impl::scheduleConsentCheck() {
  startTask(TaskSlot::consentCheckInnerTask, [this] {
    if (!options()) return;
    startTask(TaskSlot::consentCheckTask, [this] { runConsentCheck(); });
  });
}

void ConsentSDK::Impl::startNetworkMonitoring() {
  std::unique_ptr<NetworkPathMonitor> monitor = currentPlatform()->makeNetworkPathMonitor();
  std::unique_ptr<NetworkPathMonitor> old;
  {
    std::lock_guard lock(cycleMutex_);
    if (closing_) return;
    old = std::exchange(monitor_, nullptr);
  }
  if (old) old->cancel();
  if (!monitor) return;
  monitor->start([this](NetworkPathStatus status) { onNetworkPath(status); });
  {
    std::lock_guard lock(cycleMutex_);
    if (!closing_) {
      monitor_ = std::move(monitor);
      return;
    }
  }
  // Torn down meanwhile: the destructor no longer sees this monitor. It is
  // cancelled without the lock, which its handler takes.
  monitor->cancel();
}

void ConsentSDK::Impl::onNetworkPath(NetworkPathStatus status) {
  bool cameBack;
  {
    std::lock_guard lock(cycleMutex_);
    // Only a return from offline starts a check; the first report never does.
    cameBack =
        networkStatus_ == NetworkPathStatus::unsatisfied && status == NetworkPathStatus::satisfied;
    networkStatus_ = status;
  }
  if (cameBack) scheduleConsentCheck();
}

void ConsentSDK::Impl::runConsentCheck() {
  std::shared_ptr<const MainConfiguration> document = getCDNFile();
  if (!document) return;
  detail::PermissionManager permissionManager(document->permissions, document->settingPrompt);
  auto permissions = permissionManager.checkPermissions();
  detail::PurposeManager purposeManager(document->purposes, document->isATTEnabled,
                                        document->attConfig);
  auto purposes = purposeManager.checkPurposes();
  const bool pending = UserDefaultManager::getBool(keys::kUploadConsentRequestPending);
  if (!permissions.changed && !purposes.changed && !pending) return;

  const DeviceValues device = readDeviceValues();
  std::optional<BannerConfig> banner = getBannerConfig(document.get());
  const ComplianceType compliance =
      banner ? banner->complianceType.value_or(ComplianceType::noticeOnly)
             : ComplianceType::noticeOnly;
  const std::optional<ConsentSDKOptions> options = this->options();
  PostConsentsRequest request(
      device.subjectId, options ? options->appId : "", device.device,
      UserDefaultManager::getString(keys::kConsentGivenType, kConsentNoAction) == kConsentImplicit,
      UserDefaultManager::getInt(keys::kSdkVersion), std::move(purposes.consents),
      std::move(permissions.consents), options && options->testingMode, device.adId,
      std::string(rawValue(compliance)));
  const std::string url = options ? options->appUrl : "";
  startTask(TaskSlot::uploadConsentTask,
            [this, url, request = std::move(request)] { uploadConsents(url, request); });
}

void ConsentSDK::Impl::prefillDefaultValues(const std::shared_ptr<const MainConfiguration>& config,
                                            bool flag) {
  std::optional<BannerConfig> banner = getBannerConfig(config.get());
  if (!banner || !banner->complianceType) return;
  if (!banner->recordConsentUponAppStart.value_or(false) && !flag) return;
  const ComplianceType compliance = *banner->complianceType;
  const std::int64_t now = detail::currentTimeSeconds();
  const bool trackingAuthorized = detail::PurposeManager::trackingAuthorized();

  std::vector<PurposeConsent> purposeConsents;
  detail::PurposeManager purposeManager(config->purposes, config->isATTEnabled, config->attConfig);
  for (const Purpose& purpose : purposeManager.getPurposes()) {
    if (!purpose.purposeId) continue;
    const bool essential = purpose.disableOptOut.value_or(false);
    ConsentStatus consent = compliance == ComplianceType::optIn && !essential
                                ? ConsentStatus::declined
                                : ConsentStatus::granted;
    if (purpose.isATTMapped.value_or(false)) {
      consent = trackingAuthorized ? ConsentStatus::granted : ConsentStatus::declined;
    }
    purposeManager.updatePurposeConsent(purpose, consent, kConsentImplicit);
    const std::string key = std::to_string(*purpose.purposeId);
    purposeConsents.emplace_back(
        *purpose.purposeId, UserDefaultManager::getPurposeConsent(key, consent), now, essential);
  }
  std::vector<PermissionConsent> permissionConsents;
  detail::PermissionManager permissionManager(config->permissions, config->settingPrompt);
  for (const AppPermission& permission : permissionManager.getPermissions()) {
    permissionManager.updatePermissionConsent(
        permission, permission.consentStatus.value_or(ConsentStatus::notDetermined),
        kConsentImplicit);
    permissionConsents.emplace_back(*permission.permissionId,
                                    UserDefaultManager::getPermissionConsent(
                                        *permission.permissionId, ConsentStatus::notDetermined),
                                    now);
  }
  // Nothing recorded, nothing to upload.
  if (purposeConsents.empty() && permissionConsents.empty()) return;

  const DeviceValues device = readDeviceValues();
  const std::optional<ConsentSDKOptions> options = this->options();
  PostConsentsRequest request(
      device.subjectId, options ? options->appId : "", device.device,
      /*implicitConsent=*/true, UserDefaultManager::getInt(keys::kSdkVersion),
      std::move(purposeConsents), std::move(permissionConsents), options && options->testingMode,
      device.adId, std::string(rawValue(compliance)));
  const std::string url = options ? options->appUrl : "";
  cancelTask(TaskSlot::uploadConsentTask);
  startTask(TaskSlot::uploadConsentTask,
            [this, url, request = std::move(request)] { uploadConsents(url, request); });
}

}  // namespace pactivo
