#include "pactivo/consent_sdk.h"

#include <utility>

#include "pactivo/locale_utils.h"
#include "pactivo/logger.h"
#include "pactivo/user_default_manager.h"
#include "persistence/preference_store.h"
#include "persistence/preference_writer.h"
#include "platform/uuid.h"
#include "runtime/consent_feed.h"
#include "sdk/consent_sdk_impl.h"
#include "sdk/options_rules.h"

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
  std::unique_ptr<detail::RepeatingTimer> timer;
  std::unique_ptr<detail::OneShotTimer> choiceReport;
  std::unique_ptr<NetworkPathMonitor> monitor;
  {
    std::lock_guard lock(cycleMutex_);
    closing_ = true;
    timer = std::move(recurringCheckTask_);
    choiceReport = std::move(choiceReport_);
    monitor = std::move(monitor_);
  }
  // The timers and the monitor stop first, so no new task starts; then every
  // task is cancelled (an HTTP transfer aborts at once) and joined.
  timer.reset();
  choiceReport.reset();
  if (monitor) monitor->cancel();
  tasks_.shutdown();
  removeListeners();
  // A testing run leaves no consents behind: removed only once nothing is
  // left that could write again (a cancelled upload marks itself pending).
  std::optional<ConsentSDKOptions> options = this->options();
  if (options && options->testingMode) {
    detail::ConsentCauseScope cause(ConsentChangeCause::removal);
    UserDefaultManager::removeAllConsents();
  }
  // Observations end with the facade they were made through.
  std::vector<std::uint64_t> observations;
  {
    std::lock_guard lock(mutex_);
    observations.swap(observations_);
  }
  for (std::uint64_t id : observations) detail::ConsentFeed::shared().cancel(id);
}

ConsentObservation ConsentSDK::Impl::observeConsents(
    std::function<void(const ConsentChanges&)> callback) {
  if (!callback) return {};
  std::uint64_t id;
  if (auto store = detail::currentStore()) {
    id = store->observeConsents(std::move(callback));
  } else {
    // Nothing is stored, and nothing will be: the current state is empty.
    id = detail::ConsentFeed::shared().add(std::move(callback), {}, {}, nullptr);
  }
  std::lock_guard lock(mutex_);
  observations_.push_back(id);
  return ConsentObservation(id);
}

std::optional<ConsentSDKOptions> ConsentSDK::Impl::options() const {
  std::lock_guard lock(mutex_);
  return options_;
}

bool ConsentSDK::Impl::usable() {
  // Both failures are logged once where they are found.
  return detail::currentStore() != nullptr && !LocaleUtils::currentLanguageCode().empty();
}

void ConsentSDK::Impl::setup(const ConsentSDKOptions& hostOptions) {
  ConsentSDKOptions options = hostOptions;
  detail::normaliseOptions(options);
  {
    std::lock_guard lock(mutex_);
    options_.emplace(options);
  }
  // Without its suite the library stays unavailable and starts nothing;
  // queries answer with their empty results.
  if (!detail::currentStore()) return;
  const std::string lastMode =
      UserDefaultManager::getString(keys::kLastModeUsed, rawValue(options.mode));
  const bool switchedToLive = options.mode == Mode::live && lastMode == "draft";

  SDKLogger::shared().setLogLevel(options.logLevel);
  // Said once here rather than hidden in every failing request.
  for (const auto& problem :
       detail::networkSettingsProblems(currentPlatform()->networkSettings())) {
    SDKLogger::shared().log("Network settings: " + problem, LogLevel::error, "setup(_:)");
  }

  if (options.languageCode && !options.languageCode->empty()) {
    LocaleUtils::setCurrentLanguageCode(*options.languageCode);
  } else {
    const auto& exceptions = LocaleUtils::languageExceptionMap();
    if (auto it = exceptions.find(LocaleUtils::currentLanguageCode()); it != exceptions.end()) {
      LocaleUtils::setCurrentLanguageCode(it->second);
    }
  }
  if (!usable()) return;

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

  if (options.testingMode || switchedToLive) discardCachedConfiguration();

  // One commit, so one sync, for what setup records; none when it is all
  // stored already.
  detail::updatePreferences("setup", [&](detail::PreferenceWriter& writer) {
    if (options.subjectId) writer.setString(keys::kSubjectId, *options.subjectId);
    writer.setString(keys::kLastModeUsed, rawValue(options.mode));
    writer.setBool(keys::kIsBannerPresent, false);
    // The identity, made on first launch.
    if (writer.getString(keys::kSubjectId, "").empty()) {
      writer.setString(keys::kSubjectId, detail::makeUpperCaseUuid());
    }
    return true;
  });

  // Choices recorded by an earlier run that ended before reporting them.
  const bool unreported = !UserDefaultManager::getPendingPurposes().empty() ||
                          !UserDefaultManager::getPendingPermissions().empty() ||
                          UserDefaultManager::getBool(keys::kUploadConsentRequestPending);
  tasks_.start([this, unreported] { runSetupTask(unreported); });
}

void ConsentSDK::Impl::runSetupTask(bool unreported) {
  const bool available = getCDNFile() != nullptr;
  // The periodic check starts once the user has answered the banner.
  if (UserDefaultManager::getString(keys::kConsentGivenType, kConsentNoAction) !=
      kConsentNoAction) {
    startRecurringConsentCheck();
  }
  startNetworkMonitoring();
  if (available && unreported) requestConsentCheck();
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
