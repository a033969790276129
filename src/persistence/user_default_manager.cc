#include "pactivo/user_default_manager.h"

#include "pactivo/logger.h"
#include "persistence/preference_store.h"
#include "persistence/preference_writer.h"
#include "platform/uuid.h"

namespace pactivo {
namespace {

using detail::currentStore;

// A failed write is logged after the store's lock is released, because the
// logger itself reads the store.
void reportWriteFailure(std::string_view key, const std::string& error) {
  SDKLogger::shared().log("Failed to write preference " + std::string(key) + ": " + error,
                          LogLevel::error, "UserDefaultManager");
}

// Without a suite nothing is stored and every read gives its default.
void put(std::string_view key, PreferenceValue value) {
  auto store = currentStore();
  std::string error;
  if (store && !store->put(key, std::move(value), &error)) reportWriteFailure(key, error);
}

void remove(std::string_view key) {
  auto store = currentStore();
  std::string error;
  if (store && !store->remove(key, &error)) reportWriteFailure(key, error);
}

template <typename Reader>
auto read(std::string_view key, Reader&& reader) {
  auto store = currentStore();
  if (!store) return reader(nullptr);
  return store->read(key, std::forward<Reader>(reader));
}

template <typename T>
std::optional<T> readAs(std::string_view key) {
  return read(key, [](const PreferenceValue* value) -> std::optional<T> {
    if (value == nullptr) return std::nullopt;
    if (const T* typed = std::get_if<T>(value)) return *typed;
    return std::nullopt;
  });
}

// Numbers and booleans are one kind of value to typed reads, as in a
// property list.
std::optional<std::int64_t> readNumber(std::string_view key) {
  return read(key, [](const PreferenceValue* value) -> std::optional<int64_t> {
    if (value == nullptr) return std::nullopt;
    if (const auto* number = std::get_if<std::int64_t>(value)) return *number;
    if (const auto* flag = std::get_if<bool>(value)) return *flag ? 1 : 0;
    return std::nullopt;
  });
}

std::optional<ConsentStatus> readConsent(std::string_view key) {
  return read(key, [](const PreferenceValue* value) { return detail::consentValue(value); });
}

void addToList(std::string_view key, PreferenceArrayElement element) {
  auto store = currentStore();
  if (!store) return;
  std::string error;
  // Read and written in one transaction, so that two adds do not lose one.
  store->update(
      [&](detail::PreferenceStore::Transaction& transaction) {
        transaction.put(key, detail::withElement(transaction.find(key), element));
        return true;
      },
      &error);
  if (!error.empty()) reportWriteFailure(key, error);
}

}  // namespace

bool UserDefaultManager::isAvailable() { return currentStore() != nullptr; }

std::string UserDefaultManager::getString(std::string_view key, std::string_view defaultValue) {
  auto value = readAs<std::string>(key);
  return value ? std::move(*value) : std::string(defaultValue);
}

void UserDefaultManager::setString(std::string_view key, std::string_view value) {
  put(key, std::string(value));
}

bool UserDefaultManager::getBool(std::string_view key) { return readNumber(key).value_or(0) != 0; }

void UserDefaultManager::setBool(std::string_view key, bool value) { put(key, value); }

std::int64_t UserDefaultManager::getInt(std::string_view key) {
  return readNumber(key).value_or(0);
}

void UserDefaultManager::setInt(std::string_view key, std::int64_t value) { put(key, value); }

std::int64_t UserDefaultManager::getInt64(std::string_view key, std::int64_t defaultValue) {
  return readNumber(key).value_or(defaultValue);
}

void UserDefaultManager::setInt64(std::string_view key, std::int64_t value) { put(key, value); }

void UserDefaultManager::setPurposeConsent(std::string_view key, ConsentStatus status) {
  put(key, std::string(rawValue(status)));
}

ConsentStatus UserDefaultManager::getPurposeConsent(std::string_view key,
                                                    ConsentStatus defaultStatus) {
  return readConsent(key).value_or(defaultStatus);
}

std::optional<ConsentStatus> UserDefaultManager::getStoredConsent(std::string_view key) {
  return readConsent(key);
}

void UserDefaultManager::setPermissionConsent(const LumariKey& key, ConsentStatus status) {
  put(key.rawValue(), std::string(rawValue(status)));
}

ConsentStatus UserDefaultManager::getPermissionConsent(const LumariKey& key,
                                                       ConsentStatus defaultStatus) {
  return readConsent(key.rawValue()).value_or(defaultStatus);
}

std::vector<std::int64_t> UserDefaultManager::getPendingPurposes() {
  return read(keys::kPendingPurposesList, detail::integerList);
}

void UserDefaultManager::addPendingPurpose(std::int64_t purposeId) {
  addToList(keys::kPendingPurposesList, purposeId);
}

void UserDefaultManager::clearPendingPurposes() {
  put(keys::kPendingPurposesList, std::vector<PreferenceArrayElement>{});
}

std::vector<std::string> UserDefaultManager::getPendingPermissions() {
  return read(keys::kPendingPermissionsList, detail::textList);
}

void UserDefaultManager::addPendingPermission(const LumariKey& key) {
  addToList(keys::kPendingPermissionsList, std::string(key.rawValue()));
}

void UserDefaultManager::clearPendingPermissions() {
  put(keys::kPendingPermissionsList, std::vector<PreferenceArrayElement>{});
}

std::string UserDefaultManager::getSubjectId() {
  std::string identity = getString(keys::kSubjectId, "");
  if (!identity.empty()) return identity;
  // Threads and processes that find no identity at the same moment (an upload
  // and the new user's defaults after removeConsents(), say) must all send the
  // same one: the read that decides and the write are one transaction.
  identity = detail::makeUpperCaseUuid();
  detail::updatePreferences("subject identity", [&](detail::PreferenceWriter& writer) {
    std::string stored = writer.getString(keys::kSubjectId, "");
    if (stored.empty()) {
      writer.setString(keys::kSubjectId, identity);
      return true;
    }
    identity = std::move(stored);
    return false;
  });
  return identity;
}

void UserDefaultManager::setComplianceType(ComplianceType type) {
  put(keys::kCurrentComplianceType, std::string(rawValue(type)));
}

ComplianceType UserDefaultManager::getComplianceType() {
  auto stored = readAs<std::string>(keys::kCurrentComplianceType);
  if (stored == "opt-in") return ComplianceType::optIn;
  if (stored == "opt-out") return ComplianceType::optOut;
  return ComplianceType::noticeOnly;
}

void UserDefaultManager::setStoredLocation(std::string_view location) {
  put(keys::kCurrentLocation, std::string(location));
}

std::optional<std::string> UserDefaultManager::getStoredLocation() {
  return readAs<std::string>(keys::kCurrentLocation);
}

void UserDefaultManager::setStoredCountryCode(std::string_view countryCode) {
  put(keys::kCurrentCountryCode, std::string(countryCode));
}

std::optional<std::string> UserDefaultManager::getStoredCountryCode() {
  return readAs<std::string>(keys::kCurrentCountryCode);
}

void UserDefaultManager::setLocationTimestamp(std::chrono::system_clock::time_point when) {
  put(keys::kCurrentLocationTimestamp, when);
}

std::optional<std::chrono::system_clock::time_point> UserDefaultManager::getLocationTimestamp() {
  return readAs<std::chrono::system_clock::time_point>(keys::kCurrentLocationTimestamp);
}

std::optional<std::string> UserDefaultManager::getETag() {
  return readAs<std::string>(keys::kEtag);
}

void UserDefaultManager::setETag(std::string_view etag) { put(keys::kEtag, std::string(etag)); }

void UserDefaultManager::clearETag() { remove(keys::kEtag); }

void UserDefaultManager::removeAllConsents() {
  // Every key, identity and cache bookkeeping included, in one transaction.
  auto store = currentStore();
  std::string error;
  if (store && !store->removeAll(&error)) reportWriteFailure("(all keys)", error);
  SDKLogger::shared().log("Successfully removed all consents", LogLevel::info,
                          "removeAllConsents()");
}

std::vector<PreferenceEntry> UserDefaultManager::allEntries() {
  auto store = currentStore();
  return store ? store->entries() : std::vector<PreferenceEntry>{};
}

}  // namespace pactivo
