#include "platform/collation.h"

#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <memory>
#include <numeric>

namespace pactivo::detail {
namespace {

std::unique_ptr<icu::Collator> makeCollator(const std::string& languageCode) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Collator> collator(
      icu::Collator::createInstance(icu::Locale::forLanguageTag(languageCode, status), status));
  if (U_FAILURE(status) || !collator) {
    status = U_ZERO_ERROR;
    collator.reset(icu::Collator::createInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) return nullptr;
  }
  // Secondary strength: accents count, letter case does not.
  collator->setStrength(icu::Collator::SECONDARY);
  collator->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
  return collator;
}

}  // namespace

std::vector<std::size_t> localizedStandardOrder(const std::vector<std::string>& names,
                                                const std::string& languageCode) {
  std::vector<std::size_t> order(names.size());
  std::iota(order.begin(), order.end(), 0);
  if (names.size() < 2) return order;
  std::unique_ptr<icu::Collator> collator = makeCollator(languageCode);
  if (!collator) return order;
  // One sort key per name, so the sort compares bytes.
  std::vector<std::string> sortKeys(names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    icu::UnicodeString text = icu::UnicodeString::fromUTF8(names[i]);
    int32_t length = collator->getSortKey(text, nullptr, 0);
    sortKeys[i].resize(static_cast<std::size_t>(length));
    collator->getSortKey(text, reinterpret_cast<uint8_t*>(sortKeys[i].data()), length);
  }
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return sortKeys[a] < sortKeys[b]; });
  return order;
}

}  // namespace pactivo::detail
