#include "pactivo/user_default_manager.h"

#include <set>
#include <unordered_set>

#include "pactivo/logger.h"
#include "persistence/preference_store.h"
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

void put(std::string_view key, PreferenceValue value) {
  std::string error;
  if (!currentStore()->put(key, std::move(value), &error)) reportWriteFailure(key, error);
}

void remove(std::string_view key) {
  std::string error;
  if (!currentStore()->remove(key, &error)) reportWriteFailure(key, error);
}

template <typename T>
std::optional<T> readAs(std::string_view key) {
  return currentStore()->read(key, [](const PreferenceValue* value) -> std::optional<T> {
    if (value == nullptr) return std::nullopt;
    if (const T* typed = std::get_if<T>(value)) return *typed;
    return std::nullopt;
  });
}

// Numbers and booleans are one kind of value to typed reads, as in a
// property list.
std::optional<std::int64_t> readNumber(std::string_view key) {
  return currentStore()->read(key, [](const PreferenceValue* value) -> std::optional<int64_t> {
    if (value == nullptr) return std::nullopt;
    if (const auto* number = std::get_if<std::int64_t>(value)) return *number;
    if (const auto* flag = std::get_if<bool>(value)) return *flag ? 1 : 0;
    return std::nullopt;
  });
}

std::optional<ConsentStatus> readConsent(std::string_view key) {
  return currentStore()->read(key,
                              [](const PreferenceValue* value) -> std::optional<ConsentStatus> {
                                if (value == nullptr) return std::nullopt;
                                const auto* text = std::get_if<std::string>(value);
                                if (text == nullptr) return std::nullopt;
                                return fromRawValue<ConsentStatus>(*text);
                              });
}

// A list with an element of the wrong type reads as empty.
template <typename T>
std::vector<T> readList(std::string_view key) {
  return currentStore()->read(key, [](const PreferenceValue* value) {
    std::vector<T> list;
    if (value == nullptr) return list;
    const auto* elements = std::get_if<std::vector<PreferenceArrayElement>>(value);
    if (elements == nullptr) return list;
    list.reserve(elements->size());
    for (const auto& element : *elements) {
      const T* typed = std::get_if<T>(&element);
      if (typed == nullptr) return std::vector<T>{};
      list.push_back(*typed);
    }
    return list;
  });
}

template <typename T>
void storeList(std::string_view key, const std::vector<T>& list) {
  put(key, std::vector<PreferenceArrayElement>(list.begin(), list.end()));
}

template <typename T>
void addToList(std::string_view key, T element) {
  std::vector<T> list = readList<T>(key);
  // A set, like the lists' first writer, keeps each entry once; the order
  // carries no meaning.
  std::set<T> unique(list.begin(), list.end());
  unique.insert(std::move(element));
  storeList(key, std::vector<T>(unique.begin(), unique.end()));
}

}  // namespace

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
  return readList<std::int64_t>(keys::kPendingPurposesList);
}

void UserDefaultManager::addPendingPurpose(std::int64_t purposeId) {
  addToList<std::int64_t>(keys::kPendingPurposesList, purposeId);
}

void UserDefaultManager::clearPendingPurposes() {
  storeList(keys::kPendingPurposesList, std::vector<std::int64_t>{});
}

std::vector<std::string> UserDefaultManager::getPendingPermissions() {
  return readList<std::string>(keys::kPendingPermissionsList);
}

void UserDefaultManager::addPendingPermission(const LumariKey& key) {
  addToList<std::string>(keys::kPendingPermissionsList, std::string(key.rawValue()));
}

void UserDefaultManager::clearPendingPermissions() {
  storeList(keys::kPendingPermissionsList, std::vector<std::string>{});
}

std::string UserDefaultManager::getSubjectId() {
  std::string stored = getString(keys::kSubjectId, "");
  if (!stored.empty()) return stored;
  std::string created = detail::makeUpperCaseUuid();
  setString(keys::kSubjectId, created);
  return created;
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
  std::string error;
  if (!currentStore()->removeAll(&error)) reportWriteFailure("(all keys)", error);
  SDKLogger::shared().log("Successfully removed all consents", LogLevel::info,
                          "removeAllConsents()");
}

std::vector<PreferenceEntry> UserDefaultManager::allEntries() { return currentStore()->entries(); }

}  // namespace pactivo
