// Typed reads and writes inside one transaction of the suite, for changes
// that must land together or not at all (a consent with its flags, a whole
// set of defaults).
#ifndef PACTIVO_SRC_PERSISTENCE_PREFERENCE_WRITER_H_
#define PACTIVO_SRC_PERSISTENCE_PREFERENCE_WRITER_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pactivo/consent_records.h"
#include "pactivo/enums.h"
#include "pactivo/lumari_key.h"
#include "persistence/preference_store.h"

namespace pactivo::detail {

// The stored forms shared with UserDefaultManager: a consent is its raw text,
// and a list with an element of the wrong type reads as empty.
std::optional<ConsentStatus> consentValue(const PreferenceValue* value);
std::vector<std::int64_t> integerList(const PreferenceValue* value);
std::vector<std::string> textList(const PreferenceValue* value);
// `list` with `element` added once; the order carries no meaning.
std::vector<PreferenceArrayElement> withElement(const PreferenceValue* list,
                                                PreferenceArrayElement element);

// A typed view of one transaction; valid only inside updatePreferences().
class PreferenceWriter {
 public:
  explicit PreferenceWriter(PreferenceStore::Transaction& transaction)
      : transaction_(transaction) {}

  std::string getString(std::string_view key, std::string_view defaultValue) const;
  std::optional<ConsentStatus> getConsent(std::string_view key) const;
  // A stored number (a boolean reads as 0 or 1), else `defaultValue`.
  std::int64_t getInt64(std::string_view key, std::int64_t defaultValue) const;

  void setString(std::string_view key, std::string_view value);
  void setBool(std::string_view key, bool value);
  void setInt64(std::string_view key, std::int64_t value);
  void setConsent(std::string_view key, ConsentStatus status);
  void addPendingPurpose(std::int64_t purposeId);
  void addPendingPermission(const LumariKey& key);
  // Takes off the pending lists what `reported` says was uploaded: an entry
  // whose stored consent is still the one uploaded. A choice made while the
  // upload was on its way stays pending, to be reported next.
  void removeReported(const std::vector<PurposeConsent>& purposes,
                      const std::vector<PermissionConsent>& permissions);

 private:
  PreferenceStore::Transaction& transaction_;
};

// Runs `body` in one transaction of the current suite. Returns true when it
// committed; false when `body` returned false, when there is no suite, or
// when a write failed (logged with `what`), and then nothing was changed.
bool updatePreferences(std::string_view what, const std::function<bool(PreferenceWriter&)>& body);

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_PERSISTENCE_PREFERENCE_WRITER_H_
