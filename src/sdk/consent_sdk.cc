#include "pactivo/consent_sdk.h"

#include <utility>

#include "pactivo/locale_utils.h"
#include "pactivo/logger.h"
#include "pactivo/user_default_manager.h"
#include "persistence/preference_store.h"
#include "sdk/consent_sdk_impl.h"

namespace pactivo {

ConsentSDK& ConsentSDK::shared() {
  static ConsentSDK instance;
  return instance;
}

ConsentSDK::ConsentSDK() : impl_(std::make_unique<Impl>()) {}
ConsentSDK::~ConsentSDK() = default;

void ConsentSDK::setup(const ConsentSDKOptions& options) { impl_->setup(options); }
void ConsentSDK::isReady(std::function<void(SDKStatus)> callback) {
  impl_->isReady(std::move(callback));
}
SDKStatus ConsentSDK::getStatus() const { return impl_->sdkListener->isReady(); }
void ConsentSDK::removeListeners() { impl_->removeListeners(); }
std::optional<ConsentSDKOptions> ConsentSDK::options() const { return impl_->options(); }

ConsentSDK::Impl::Impl() = default;

ConsentSDK::Impl::~Impl() {
  std::optional<ConsentSDKOptions> options = this->options();
  // A testing run leaves no consents behind.
  if (options && options->testingMode) UserDefaultManager::removeAllConsents();
  std::unique_ptr<detail::RepeatingTimer> timer;
  std::unique_ptr<NetworkPathMonitor> monitor;
  {
    std::lock_guard lock(cycleMutex_);
    closing_ = true;
    timer = std::move(recurringCheckTask_);
    monitor = std::move(monitor_);
  }
  // The timer and the monitor stop first, so no new task starts; then every
  // task is cancelled (an HTTP transfer aborts at once) and joined.
  timer.reset();
  if (monitor) monitor->cancel();
  tasks_.shutdown();
  removeListeners();
}

std::optional<ConsentSDKOptions> ConsentSDK::Impl::options() const {
  std::lock_guard lock(mutex_);
  return options_;
}

void ConsentSDK::Impl::setup(const ConsentSDKOptions& options) {
  {
    std::lock_guard lock(mutex_);
    options_.emplace(options);
  }
  const std::string lastMode =
      UserDefaultManager::getString(keys::kLastModeUsed, rawValue(options.mode));
  const bool switchedToLive = options.mode == Mode::live && lastMode == "draft";

  SDKLogger::shared().setLogLevel(options.logLevel);

  if (options.languageCode && !options.languageCode->empty()) {
    LocaleUtils::setCurrentLanguageCode(*options.languageCode);
  } else {
    const auto& exceptions = LocaleUtils::languageExceptionMap();
    if (auto it = exceptions.find(LocaleUtils::currentLanguageCode()); it != exceptions.end()) {
      LocaleUtils::setCurrentLanguageCode(it->second);
    }
  }

  // A document cached in another language is of no use any more. Nothing is
  // stored on a first launch (and a non-string is ignored), so nothing is
  // discarded then.
  const std::optional<std::string> cachedLanguage = detail::currentStore()->read(
      keys::kLanguageCode, [](const PreferenceValue* value) -> std::optional<std::string> {
        const auto* text = value ? std::get_if<std::string>(value) : nullptr;
        return text ? std::optional<std::string>(*text) : std::nullopt;
      });
  if (cachedLanguage && *cachedLanguage != LocaleUtils::currentLanguageCode()) {
    discardCachedConfiguration();
  }

  if (options.subjectId) UserDefaultManager::setString(keys::kSubjectId, *options.subjectId);

  if (options.testingMode || switchedToLive) discardCachedConfiguration();

  UserDefaultManager::setString(keys::kLastModeUsed, rawValue(options.mode));
  UserDefaultManager::setBool(keys::kIsBannerPresent, false);
  UserDefaultManager::getSubjectId();  // creates the identity on first launch

  tasks_.start([this] { runSetupTask(); });
}

void ConsentSDK::Impl::runSetupTask() {
  getCDNFile();
  // The periodic check starts once the user has answered the banner.
  if (UserDefaultManager::getString(keys::kConsentGivenType, kConsentNoAction) !=
      kConsentNoAction) {
    startRecurringConsentCheck();
  }
  startNetworkMonitoring();
}

void ConsentSDK::Impl::isReady(std::function<void(SDKStatus)> callback) {
  auto shared = std::make_shared<std::function<void(SDKStatus)>>(std::move(callback));
  std::weak_ptr<SDKListener> prev = prevSdkListener;
  SDKListener::Observation observation =
      SDKListener::observe(sdkListener, [prev, shared](SDKStatus, SDKStatus newValue) {
        auto previous = prev.lock();
        if (!previous || previous->isReady() == newValue) return;
        previous->setIsReady(newValue);
        (*shared)(newValue);
      });
  SDKListener::Observation replaced;
  {
    std::lock_guard lock(mutex_);
    replaced = std::exchange(observer_, std::move(observation));
  }
  replaced.invalidate();
  (*shared)(sdkListener->isReady());
}

void ConsentSDK::Impl::removeListeners() {
  SDKListener::Observation removed;
  {
    std::lock_guard lock(mutex_);
    removed = std::move(observer_);
  }
  removed.invalidate();
}

}  // namespace pactivo
