#include "pactivo/locale_utils.h"

#include <mutex>

#include "pactivo/logger.h"
#include "pactivo/platform.h"

namespace pactivo {
namespace {

struct LanguageState {
  std::mutex mutex;
  std::optional<std::string> current;  // guarded by mutex; set on first use
};

LanguageState& state() {
  static auto* instance = new LanguageState;
  return *instance;
}

}  // namespace

std::string LocaleUtils::preferredLanguage() {
  std::vector<std::string> languages = currentPlatform()->preferredLanguages();
  if (languages.empty()) {
    // The platform broke its promise of at least one language. Without one
    // no document can be chosen: the library stays unavailable, the host
    // runs on.
    SDKLogger::shared().log("Platform reported no preferred language", LogLevel::error,
                            "preferredLanguage()");
    return "";
  }
  return languages.front();
}

std::string LocaleUtils::currentLanguageCode() {
  LanguageState& s = state();
  {
    std::lock_guard lock(s.mutex);
    if (s.current) return *s.current;
  }
  std::string preferred = preferredLanguage();
  std::string code = preferred.substr(0, preferred.find('-'));
  std::lock_guard lock(s.mutex);
  if (!s.current) s.current = std::move(code);
  return *s.current;
}

void LocaleUtils::setCurrentLanguageCode(std::string code) {
  std::lock_guard lock(state().mutex);
  state().current = std::move(code);
}

const std::map<std::string, std::string>& LocaleUtils::languageExceptionMap() {
  static const auto* map = new std::map<std::string, std::string>{{"mni", "mni-mtei"}};
  return *map;
}

std::string LocaleUtils::localizedText(const std::optional<LocalizedText>& texts) {
  if (!texts || texts->empty()) return "";
  if (const std::string* text = texts->find(currentLanguageCode())) return *text;
  if (const std::string* text = texts->find("_")) return *text;
  return "";
}

}  // namespace pactivo
