#include "purposes/purpose_manager.h"

#include <algorithm>
#include <sstream>

#include "pactivo/locale_utils.h"
#include "pactivo/logger.h"
#include "pactivo/platform.h"
#include "pactivo/user_default_manager.h"
#include "platform/collation.h"
#include "platform/time.h"

namespace pactivo::detail {
namespace {

// Tracking authorization "authorized".
constexpr int kTrackingAuthorized = 3;

bool contains(const std::vector<std::int64_t>& ids, std::int64_t id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

std::string describe(const std::vector<PurposeConsent>& consents) {
  std::ostringstream text;
  text << '[';
  for (std::size_t i = 0; i < consents.size(); ++i) {
    const PurposeConsent& c = consents[i];
    text << (i ? ", " : "") << "PurposeConsent(purposeID: " << c.purposeID
         << ", consentStatus: " << rawValue(c.consentStatus) << ", timestamp: " << c.timestamp
         << ", isEssential: " << (c.isEssential ? "true" : "false") << ')';
  }
  text << ']';
  return text.str();
}

}  // namespace

ConsentStatus PurposeManager::complianceDefault() {
  return UserDefaultManager::getComplianceType() == ComplianceType::optIn ? ConsentStatus::declined
                                                                          : ConsentStatus::granted;
}

bool PurposeManager::trackingAuthorized() {
  return currentPlatform()->trackingAuthorizationStatus() == kTrackingAuthorized;
}

PurposeManager::PurposeManager(const std::optional<std::vector<Purpose>>& purposes,
                               std::optional<bool> isATTEnabled, std::optional<ATTConfig> attConfig)
    : purposes_(purposes ? &*purposes : nullptr),
      isATTEnabled_(isATTEnabled),
      attConfig_(std::move(attConfig)) {}

PurposeManager::Evaluation PurposeManager::currentConsent(const Purpose& purpose) const {
  const std::string key = std::to_string(*purpose.purposeId);
  Evaluation result;
  result.storedOrDefault = UserDefaultManager::getPurposeConsent(key, complianceDefault());
  result.current = result.storedOrDefault;
  result.trackingMapped = isATTEnabled_.value_or(false) && attConfig_ && attConfig_->purposeIds &&
                          contains(*attConfig_->purposeIds, *purpose.purposeId);
  if (!result.trackingMapped) return result;
  const bool authorized = trackingAuthorized();
  const bool stored = UserDefaultManager::getStoredConsent(key).has_value();
  const bool wasGranted = result.storedOrDefault == ConsentStatus::granted ||
                          result.storedOrDefault == ConsentStatus::withDrawn;
  if (stored && wasGranted && !authorized) {
    result.current = ConsentStatus::withDrawn;
  } else {
    // Tracking authorization decides: without it a mapped purpose is never
    // granted, with it always.
    result.current = authorized ? ConsentStatus::granted : ConsentStatus::declined;
  }
  return result;
}

Purpose PurposeManager::evaluatedCopy(const Purpose& purpose) const {
  Purpose copy = purpose;
  if (!purpose.purposeId) return copy;
  Evaluation evaluation = currentConsent(purpose);
  copy.consentStatus = evaluation.current;
  if (evaluation.trackingMapped) {
    copy.isATTMapped = true;
    if (attConfig_->showInfoOnPrefCenter.value_or(false))
      copy.attDescription = attConfig_->infoText;
  }
  return copy;
}

PurposeManager::CheckResult PurposeManager::checkPurposes() {
  SDKLogger::shared().log("Purposes consent checks executed", LogLevel::info, "checkPurposes()");
  CheckResult result;
  result.changed =
      currentPlatform()->standardPreferenceBool(std::string(keys::kArePurposesChanged));
  const std::int64_t now = currentTimeSeconds();
  const std::int64_t timestamp = UserDefaultManager::getInt64(keys::kPurposesChangeTimestamp, now);
  const std::vector<std::int64_t> pending = UserDefaultManager::getPendingPurposes();

  if (purposes_) {
    for (const Purpose& purpose : *purposes_) {
      if (!purpose.purposeId) continue;
      Evaluation evaluation = currentConsent(purpose);
      const std::int64_t id = *purpose.purposeId;
      const bool essential = purpose.disableOptOut.value_or(false);
      if (contains(pending, id)) {
        result.consents.emplace_back(id, evaluation.current, timestamp, essential);
      }
      if (!evaluation.trackingMapped) continue;
      // Tracking-mapped purposes follow the authorization by themselves.
      if (evaluation.current == ConsentStatus::notDetermined) {
        evaluation.current = ConsentStatus::declined;
      }
      if (evaluation.current == evaluation.storedOrDefault) continue;
      updatePurposeConsent(purpose, evaluation.current, kConsentExplicit);
      PurposeConsent record(id, evaluation.current, currentTimeSeconds(), essential);
      auto same = std::find(result.consents.begin(), result.consents.end(), record);
      if (same != result.consents.end()) result.consents.erase(same);
      result.consents.push_back(record);
      result.changed = true;
    }
  }
  if (result.changed) {
    SDKLogger::shared().log("Changed Purposes: " + describe(result.consents), LogLevel::debug,
                            "checkPurposes()");
  }
  return result;
}

std::vector<Purpose> PurposeManager::getPurposes() {
  std::vector<Purpose> essential;
  std::vector<Purpose> mapped;
  std::vector<Purpose> others;
  if (purposes_) {
    for (const Purpose& purpose : *purposes_) {
      Purpose copy = evaluatedCopy(purpose);
      if (copy.disableOptOut.value_or(false)) {
        essential.push_back(std::move(copy));
      } else if (copy.isATTMapped.value_or(false)) {
        mapped.push_back(std::move(copy));
      } else {
        others.push_back(std::move(copy));
      }
    }
  }
  const std::string language = LocaleUtils::currentLanguageCode();
  std::vector<Purpose> ordered;
  ordered.reserve(essential.size() + mapped.size() + others.size());
  for (std::vector<Purpose>* group : {&essential, &mapped, &others}) {
    std::vector<std::string> names;
    names.reserve(group->size());
    for (const Purpose& purpose : *group)
      names.push_back(LocaleUtils::localizedText(purpose.purposeName));
    for (std::size_t index : localizedStandardOrder(names, language)) {
      ordered.push_back(std::move((*group)[index]));
    }
  }
  return ordered;
}

bool PurposeManager::acceptsConsent(const Purpose& purpose, ConsentStatus consent) {
  if (!purpose.purposeId || consent == ConsentStatus::notDetermined) return false;
  return !purpose.disableOptOut.value_or(false) || consent == ConsentStatus::granted;
}

void PurposeManager::recordConsent(PreferenceWriter& writer, std::int64_t purposeId,
                                   ConsentStatus consent, std::string_view consentGivenType) {
  const std::string key = std::to_string(purposeId);
  const ConsentStatus stored = writer.getConsent(key).value_or(consent);
  if (stored != consent) {
    if ((stored == ConsentStatus::granted || stored == ConsentStatus::withDrawn) &&
        consent == ConsentStatus::declined) {
      consent = ConsentStatus::withDrawn;
    }
    writer.setBool(keys::kArePurposesChanged, true);
    writer.setInt64(keys::kPurposesChangeTimestamp, currentTimeSeconds());
  }
  if (consentGivenType != kConsentNoAction) {
    writer.setString(keys::kConsentGivenType, consentGivenType);
  }
  writer.addPendingPurpose(purposeId);
  writer.setConsent(key, consent);
}

bool PurposeManager::updatePurposeConsent(const Purpose& purpose, ConsentStatus consent,
                                          std::string_view consentGivenType) {
  if (!acceptsConsent(purpose, consent)) return false;
  return updatePreferences(std::to_string(*purpose.purposeId), [&](PreferenceWriter& writer) {
    recordConsent(writer, *purpose.purposeId, consent, consentGivenType);
    return true;
  });
}

}  // namespace pactivo::detail
