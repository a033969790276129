// The display order without ICU (PACTIVO_WITH_ICU=OFF), for images too small
// for ICU's 37 MB. For text in Latin-1 it orders as ICU's root collation does
// with the settings of collation.cc (secondary strength, numeric ordering):
// case ignored, digit runs by value, a plain letter before its accented forms.
// Beyond Latin-1 it falls back to code points, and it knows no language's
// own rules; the README's "Display order" lists what that changes.
#include <algorithm>
#include <compare>
#include <cstdint>
#include <numeric>
#include <string_view>

#include "platform/collation.h"

namespace pactivo::detail {
namespace {

// Primary weights: symbols come first, in kSymbols' order, then numbers,
// then the letters a to z and thorn, then everything
// beyond Latin-1 by code point.
constexpr std::uint32_t kNumber = 0x100;  // followed by the digit count, then the digits
// + value: the superscript digits and the digits of ¼, ½ and ¾, which are
// not part of numbers and come after all of them.
constexpr std::uint32_t kLoneDigit = kNumber + 1;
constexpr std::uint32_t kLetterA = 0x200;
constexpr std::uint32_t kThorn = kLetterA + 26;
constexpr std::uint32_t kBeyond = 0x1000;  // + code point

// ICU's root order of the symbols of Latin-1 (and the fraction slash of ¼).
constexpr std::u32string_view kSymbols =
    U" _-,;:!¡?¿.·'\"«»()[]{}§¶@*/\\&#%`´^¯¨¸°©®+±÷×<=>¬|¦~⁄¤¢$£¥";

// Secondary weights, in ICU's order. kVariant marks the letters ICU takes as
// variants of a base letter rather than accented ones: ð is d, æ is a then e,
// ß is s then s.
enum Accent : std::uint8_t {
  kPlain = 1,
  kVariant,
  kAcute,
  kGrave,
  kCircumflex,
  kRing,
  kDiaeresis,
  kTilde,
  kStroke,
  kCedilla,
};

// The lower-case letters U+00E0 to U+00FF: base letter and accent (÷ and þ
// are handled apart).
struct Latin1Letter {
  char base;
  Accent accent;
};
constexpr Latin1Letter kLatin1Letters[32] = {
    {'a', kGrave},      {'a', kAcute}, {'a', kCircumflex}, {'a', kTilde},
    {'a', kDiaeresis},  {'a', kRing},  {'a', kVariant},    {'c', kCedilla},
    {'e', kGrave},      {'e', kAcute}, {'e', kCircumflex}, {'e', kDiaeresis},
    {'i', kGrave},      {'i', kAcute}, {'i', kCircumflex}, {'i', kDiaeresis},
    {'d', kVariant},    {'n', kTilde}, {'o', kGrave},      {'o', kAcute},
    {'o', kCircumflex}, {'o', kTilde}, {'o', kDiaeresis},  {0, kPlain},
    {'o', kStroke},     {'u', kGrave}, {'u', kAcute},      {'u', kCircumflex},
    {'u', kDiaeresis},  {'y', kAcute}, {0, kPlain},        {'y', kDiaeresis}};

struct SortKey {
  std::vector<std::uint32_t> primary;
  std::vector<std::uint8_t> secondary;
  auto operator<=>(const SortKey&) const = default;

  void add(std::uint32_t weight, Accent accent = kPlain) {
    primary.push_back(weight);
    secondary.push_back(accent == kVariant ? kVariant : kPlain);
    if (accent > kVariant) secondary.push_back(accent);
  }
  void letter(char base, Accent accent = kPlain) {
    add(kLetterA + static_cast<std::uint32_t>(base - 'a'), accent);
  }
  // Leading zeros do not count: "007" equals "7".
  void number(std::u32string_view digits) {
    digits.remove_prefix(std::min(digits.find_first_not_of(U'0'), digits.size() - 1));
    primary.push_back(kNumber);
    primary.push_back(static_cast<std::uint32_t>(digits.size()));
    for (char32_t digit : digits) primary.push_back(digit - U'0');
    secondary.push_back(kPlain);
  }
};

// UTF-8 to code points; a malformed sequence is one U+FFFD.
std::u32string decode(std::string_view text) {
  std::u32string out;
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const int length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
    char32_t code = length == 1 ? lead : lead & (0x7F >> length);
    bool valid = length > 0 && i + static_cast<std::size_t>(length) <= text.size();
    for (int k = 1; valid && k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]);
      valid = (next & 0xC0) == 0x80;
      code = (code << 6) | (next & 0x3F);
    }
    out.push_back(valid ? code : U'\uFFFD');
    i += valid ? static_cast<std::size_t>(length) : 1;
  }
  return out;
}

SortKey sortKey(const std::string& name) {
  const std::u32string text = decode(name);
  SortKey key;
  for (std::size_t i = 0; i < text.size();) {
    char32_t c = text[i];
    if (c >= U'0' && c <= U'9') {
      const std::size_t end =
          std::find_if(text.begin() + static_cast<std::ptrdiff_t>(i), text.end(),
                       [](char32_t d) { return d < U'0' || d > U'9'; }) -
          text.begin();
      key.number(std::u32string_view(text).substr(i, end - i));
      i = end;
      continue;
    }
    ++i;
    if (c >= U'A' && c <= U'Z') c += 0x20;
    if (c >= U'\u00C0' && c <= U'\u00DE' && c != U'\u00D7') c += 0x20;
    const std::size_t symbol = kSymbols.find(c == U'\u00A0' ? U' ' : c);
    if (c < 0x20 || (c >= 0x7F && c < 0xA0) || c == U'\u00AD') {
      continue;  // controls and the soft hyphen
    } else if (symbol != std::u32string_view::npos) {
      key.add(static_cast<std::uint32_t>(symbol) + 1);
    } else if (c >= U'a' && c <= U'z') {
      key.letter(static_cast<char>(c));
    } else if (c == U'ª' || c == U'º') {
      key.letter(c == U'ª' ? 'a' : 'o');
    } else if (c == U'¹' || c == U'²' || c == U'³') {
      key.add(kLoneDigit + (c == U'¹' ? 1 : c == U'²' ? 2 : 3));
    } else if (c >= U'¼' && c <= U'¾') {
      key.add(kLoneDigit + (c == U'¾' ? 3 : 1));
      key.add(static_cast<std::uint32_t>(kSymbols.find(U'⁄')) + 1);
      key.add(kLoneDigit + (c == U'½' ? 2 : 4));
    } else if (c == U'ß') {
      key.letter('s', kVariant);
      key.letter('s');
    } else if (c == U'þ') {
      key.add(kThorn);
    } else if (c == U'µ') {
      key.add(kBeyond + U'μ');  // the Greek letter mu
    } else if (c >= U'\u00E0' && c <= U'\u00FF') {
      const Latin1Letter& letter = kLatin1Letters[c - U'\u00E0'];
      key.letter(letter.base, letter.accent);
      if (c == U'æ') key.letter('e');
    } else {
      key.add(kBeyond + c);
    }
  }
  return key;
}

}  // namespace

std::vector<std::size_t> localizedStandardOrder(const std::vector<std::string>& names,
                                                const std::string& /*languageCode*/) {
  std::vector<std::size_t> order(names.size());
  std::iota(order.begin(), order.end(), 0);
  if (names.size() < 2) return order;
  std::vector<SortKey> keys;
  keys.reserve(names.size());
  for (const std::string& name : names) keys.push_back(sortKey(name));
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return keys[a] < keys[b]; });
  return order;
}

}  // namespace pactivo::detail
