// LocaleUtils: the language used for every localized text and for the
// configuration file's name. Process-wide state; every function is
// thread-safe.
#ifndef PACTIVO_LOCALE_UTILS_H_
#define PACTIVO_LOCALE_UTILS_H_

#include <map>
#include <optional>
#include <string>

#include "pactivo/export.h"
#include "pactivo/localized_text.h"

namespace pactivo {

class PACTIVO_EXPORT LocaleUtils {
 public:
  LocaleUtils() = delete;

  // The platform's most preferred language ("en-GB"); "" (logged at error)
  // when the platform lists none, which leaves the library unavailable unless
  // the host sets a language in its options.
  static std::string preferredLanguage();

  // The language code in force: until set, the part of preferredLanguage()
  // before its first "-" ("en-GB" gives "en").
  static std::string currentLanguageCode();
  static void setCurrentLanguageCode(std::string code);

  // Languages that are looked up under another code when the host names none
  // ("mni" is served as "mni-mtei").
  static const std::map<std::string, std::string>& languageExceptionMap();

  // The text of a language-keyed map: the current language's entry, else the
  // "_" entry, else "". An absent or empty map gives "".
  static std::string localizedText(const std::optional<LocalizedText>& texts);
};

}  // namespace pactivo

#endif  // PACTIVO_LOCALE_UTILS_H_
