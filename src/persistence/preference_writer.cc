#include "persistence/preference_writer.h"

#include <algorithm>

#include "pactivo/logger.h"
#include "pactivo/user_default_manager.h"

namespace pactivo::detail {
namespace {

template <typename T>
std::vector<T> typedList(const PreferenceValue* value) {
  std::vector<T> list;
  const auto* elements = value ? std::get_if<std::vector<PreferenceArrayElement>>(value) : nullptr;
  if (elements == nullptr) return list;
  list.reserve(elements->size());
  for (const auto& element : *elements) {
    const T* typed = std::get_if<T>(&element);
    if (typed == nullptr) return {};
    list.push_back(*typed);
  }
  return list;
}

}  // namespace

std::optional<ConsentStatus> consentValue(const PreferenceValue* value) {
  const auto* text = value ? std::get_if<std::string>(value) : nullptr;
  if (text == nullptr) return std::nullopt;
  return fromRawValue<ConsentStatus>(*text);
}

std::vector<std::int64_t> integerList(const PreferenceValue* value) {
  return typedList<std::int64_t>(value);
}

std::vector<std::string> textList(const PreferenceValue* value) {
  return typedList<std::string>(value);
}

std::vector<PreferenceArrayElement> withElement(const PreferenceValue* list,
                                                PreferenceArrayElement element) {
  std::vector<PreferenceArrayElement> elements;
  if (const auto* stored = list ? std::get_if<std::vector<PreferenceArrayElement>>(list) : nullptr)
    elements = *stored;
  // A list holding the wrong type of element starts again.
  if (std::any_of(elements.begin(), elements.end(),
                  [&](const auto& e) { return e.index() != element.index(); })) {
    elements.clear();
  }
  if (std::find(elements.begin(), elements.end(), element) == elements.end()) {
    elements.push_back(std::move(element));
    std::sort(elements.begin(), elements.end());
  }
  return elements;
}

std::string PreferenceWriter::getString(std::string_view key, std::string_view defaultValue) const {
  const auto* text = std::get_if<std::string>(transaction_.find(key));
  return text ? *text : std::string(defaultValue);
}

std::int64_t PreferenceWriter::getInt64(std::string_view key, std::int64_t defaultValue) const {
  const PreferenceValue* value = transaction_.find(key);
  if (const auto* number = value ? std::get_if<std::int64_t>(value) : nullptr) return *number;
  if (const auto* flag = value ? std::get_if<bool>(value) : nullptr) return *flag ? 1 : 0;
  return defaultValue;
}

std::optional<ConsentStatus> PreferenceWriter::getConsent(std::string_view key) const {
  return consentValue(transaction_.find(key));
}

void PreferenceWriter::setString(std::string_view key, std::string_view value) {
  transaction_.put(key, std::string(value));
}

void PreferenceWriter::setBool(std::string_view key, bool value) { transaction_.put(key, value); }

void PreferenceWriter::setInt64(std::string_view key, std::int64_t value) {
  transaction_.put(key, value);
}

void PreferenceWriter::setConsent(std::string_view key, ConsentStatus status) {
  transaction_.put(key, std::string(rawValue(status)));
}

void PreferenceWriter::addPendingPurpose(std::int64_t purposeId) {
  transaction_.put(keys::kPendingPurposesList,
                   withElement(transaction_.find(keys::kPendingPurposesList), purposeId));
}

void PreferenceWriter::addPendingPermission(const LumariKey& key) {
  transaction_.put(
      keys::kPendingPermissionsList,
      withElement(transaction_.find(keys::kPendingPermissionsList), std::string(key.rawValue())));
}

void PreferenceWriter::removeReported(const std::vector<PurposeConsent>& purposes,
                                      const std::vector<PermissionConsent>& permissions) {
  std::vector<PreferenceArrayElement> purposesLeft;
  for (std::int64_t id : integerList(transaction_.find(keys::kPendingPurposesList))) {
    const auto reported = std::find_if(purposes.begin(), purposes.end(),
                                       [&](const PurposeConsent& c) { return c.purposeID == id; });
    if (reported == purposes.end() || getConsent(std::to_string(id)) != reported->consentStatus) {
      purposesLeft.emplace_back(id);
    }
  }
  std::vector<PreferenceArrayElement> permissionsLeft;
  for (std::string& key : textList(transaction_.find(keys::kPendingPermissionsList))) {
    const auto reported =
        std::find_if(permissions.begin(), permissions.end(),
                     [&](const PermissionConsent& c) { return c.permission.rawValue() == key; });
    if (reported == permissions.end() || getConsent(key) != reported->consentStatus) {
      permissionsLeft.emplace_back(std::move(key));
    }
  }
  transaction_.put(keys::kPendingPurposesList, std::move(purposesLeft));
  transaction_.put(keys::kPendingPermissionsList, std::move(permissionsLeft));
}

bool updatePreferences(std::string_view what, const std::function<bool(PreferenceWriter&)>& body) {
  std::shared_ptr<PreferenceStore> store = currentStore();
  if (!store) return false;
  std::string error;
  const bool committed = store->update(
      [&](PreferenceStore::Transaction& transaction) {
        PreferenceWriter writer(transaction);
        return body(writer);
      },
      &error);
  // Logged after the store's lock is released: the logger reads the store.
  if (!error.empty()) {
    SDKLogger::shared().log("Failed to write preference " + std::string(what) + ": " + error,
                            LogLevel::error, "UserDefaultManager");
  }
  return committed;
}

}  // namespace pactivo::detail
