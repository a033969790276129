// The display order of names, with ICU and with the built-in comparison that
// replaces it in builds without ICU: one table, both expectations side by side,
// so that every difference between the two is one listed here.
#include <gtest/gtest.h>

#include "platform/collation.h"

namespace pactivo::detail {
namespace {

// -1: `a` is shown first; 0: equal, so shown in the given order; 1: `b` first.
int compare(const char* a, const char* b, const char* language) {
  if (localizedStandardOrder({a, b}, language)[0] == 1) return 1;
  return localizedStandardOrder({b, a}, language)[0] == 0 ? 0 : -1;
}

TEST(CollationTest, IcuAndBuiltInOrders) {
  const struct {
    const char *language, *a, *b;
    int icu, builtIn;
  } cases[] = {
      {"en", "Purpose 9", "purpose 10", -1, -1},  // case ignored, numbers by value
      {"en", "Purpose 010", "purpose 10", 0, 0},  // leading zeros ignored
      {"fr", "email", "émail", -1, -1},           // the plain letter first
      {"fr", "émail", "emaim", -1, -1},           // letters before accents
      {"de", "Straße", "strasse", 1, 1},          // ß is s s, after ss
      {"en", "a-b", "a b", 1, 1},                 // space before punctuation
      // The differences: letters beyond Latin-1 by code point (ł after z, case
      // counted), combining accents as separate characters, no language's
      // own rules (Swedish ä after z).
      {"en", "Łódź", "Lyon", -1, 1},
      {"el", "Ωmega", "ωmega", 0, -1},
      {"fr", "e\u0301te\u0301", "été", 0, 1},
      {"sv", "Ärlig", "Zebra", 1, -1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(compare(c.a, c.b, c.language), PACTIVO_WITH_ICU ? c.icu : c.builtIn)
        << c.a << " / " << c.b << " (" << c.language << ")";
  }
}

}  // namespace
}  // namespace pactivo::detail
