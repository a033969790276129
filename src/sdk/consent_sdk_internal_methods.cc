// The check cycle: the repeating timer, the network watcher, one consent
// check, and the default-value prefill.
#include "integrations/google_consent_mode_helper.h"
#include "pactivo/logger.h"
#include "pactivo/platform.h"
#include "pactivo/user_default_manager.h"
#include "permissions/permission_manager.h"
#include "persistence/preference_writer.h"
#include "platform/time.h"
#include "purposes/purpose_manager.h"
#include "runtime/consent_feed.h"
#include "sdk/consent_sdk_impl.h"

namespace pactivo {
namespace {

// The check interval when no options are set.
constexpr std::chrono::seconds kDefaultCheckInterval{1800};
// How long after a choice it is reported: long enough to gather a burst of
// choices (a "reject all" in the preference centre) into one upload.
constexpr std::chrono::seconds kChoiceReportDelay{2};

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
    values.subjectId = UserDefaultManager::getSubjectId();
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
  if (options()) requestConsentCheck();
}

void ConsentSDK::Impl::requestConsentCheck() {
  {
    std::lock_guard lock(cycleMutex_);
    if (closing_) return;
    if (checkRunning_) {
      checkRequested_ = true;
      return;
    }
    checkRunning_ = true;
  }
  startTask(TaskSlot::consentCheckTask, [this] {
    for (;;) {
      runConsentCheck();
      std::lock_guard lock(cycleMutex_);
      if (!checkRequested_ || closing_) {
        checkRunning_ = false;
        return;
      }
      checkRequested_ = false;
    }
  });
}

void ConsentSDK::Impl::requestCheckSoon() {
  std::unique_ptr<detail::OneShotTimer> old;
  std::lock_guard lock(cycleMutex_);
  if (closing_ || (choiceReport_ && !choiceReport_->fired())) return;
  old = std::exchange(choiceReport_,
                      std::make_unique<detail::OneShotTimer>(*clock_, kChoiceReportDelay,
                                                             [this] { scheduleConsentCheck(); }));
}

void ConsentSDK::Impl::checkConsentsNow() {
  requestConsentCheck();
  waitUntilIdle();
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
  detail::ConsentCauseScope cause(ConsentChangeCause::checkCycle);
  std::shared_ptr<const MainConfiguration> document = getCDNFile();
  if (!document) return;
  detail::PermissionManager permissionManager(document->permissions, document->settingPrompt);
  auto permissions = permissionManager.checkPermissions();
  detail::PurposeManager purposeManager(document->purposes, document->isATTEnabled,
                                        document->attConfig);
  auto purposes = purposeManager.checkPurposes();
  // Consent can change without the user acting here (another process, a
  // re-consent, a new mapping in the document): Firebase hears every check.
  if (document->isGcmEnabled.value_or(false)) {
    detail::GoogleConsentModeHelper::updateFirebaseConsent(document.get(), gcmLocation());
  }
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
  // Uploaded on the check's own thread: a check is done when its upload is,
  // so a check that follows it sees what the upload cleared.
  uploadConsents(options ? options->appUrl : "", request);
}

void ConsentSDK::Impl::prefillDefaultValues(const std::shared_ptr<const MainConfiguration>& config,
                                            bool flag) {
  // `flag` is a new configuration version resetting consent.
  detail::ConsentCauseScope cause(flag ? ConsentChangeCause::configuration
                                       : ConsentChangeCause::checkCycle);
  std::optional<BannerConfig> banner = getBannerConfig(config.get());
  if (!banner || !banner->complianceType) return;
  if (!banner->recordConsentUponAppStart.value_or(false) && !flag) return;
  const ComplianceType compliance = *banner->complianceType;
  const std::int64_t now = detail::currentTimeSeconds();
  const bool trackingAuthorized = detail::PurposeManager::trackingAuthorized();

  // The defaults are worked out first, asking the platform outside the
  // transaction that records them.
  struct PurposeDefault {
    const Purpose* purpose;
    ConsentStatus consent;
  };
  std::vector<PurposeDefault> purposeDefaults;
  detail::PurposeManager purposeManager(config->purposes, config->isATTEnabled, config->attConfig);
  const std::vector<Purpose> purposes = purposeManager.getPurposes();
  for (const Purpose& purpose : purposes) {
    if (!purpose.purposeId) continue;
    const bool essential = purpose.disableOptOut.value_or(false);
    ConsentStatus consent = compliance == ComplianceType::optIn && !essential
                                ? ConsentStatus::declined
                                : ConsentStatus::granted;
    if (purpose.isATTMapped.value_or(false)) {
      consent = trackingAuthorized ? ConsentStatus::granted : ConsentStatus::declined;
    }
    purposeDefaults.push_back({&purpose, consent});
  }
  detail::PermissionManager permissionManager(config->permissions, config->settingPrompt);
  const std::vector<AppPermission> permissions = permissionManager.getPermissions();

  std::vector<PurposeConsent> purposeConsents;
  std::vector<PermissionConsent> permissionConsents;
  const bool recorded =
      detail::updatePreferences("defaults", [&](detail::PreferenceWriter& writer) {
        // A user who answered while the defaults were worked out keeps the
        // answer: defaults are only for a user who has not acted. Checked in the
        // transaction that records them, so a choice cannot slip in between.
        if (writer.getString(keys::kConsentGivenType, kConsentNoAction) != kConsentNoAction) {
          return false;
        }
        purposeConsents.clear();
        permissionConsents.clear();
        for (const auto& [purpose, consent] : purposeDefaults) {
          const std::int64_t id = *purpose->purposeId;
          if (detail::PurposeManager::acceptsConsent(*purpose, consent)) {
            detail::PurposeManager::recordConsent(writer, id, consent, kConsentImplicit);
          }
          purposeConsents.emplace_back(id, writer.getConsent(std::to_string(id)).value_or(consent),
                                       now, purpose->disableOptOut.value_or(false));
        }
        for (const AppPermission& permission : permissions) {
          const LumariKey& key = *permission.permissionId;
          detail::PermissionManager::recordConsent(
              writer, key, permission.consentStatus.value_or(ConsentStatus::notDetermined),
              kConsentImplicit);
          permissionConsents.emplace_back(
              key, writer.getConsent(key.rawValue()).value_or(ConsentStatus::notDetermined), now);
        }
        return true;
      });
  if (!recorded) return;
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
