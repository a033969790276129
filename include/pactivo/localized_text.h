// LocalizedText: one text in several languages, keyed by language code
// ("en", "fr", or "_" for the text of any other language).
//
// Kept as a small vector of pairs in insertion order rather than a tree: a
// document holds thousands of these with two or three languages each. A value
// type; safe to share between threads when not modified.
#ifndef PACTIVO_LOCALIZED_TEXT_H_
#define PACTIVO_LOCALIZED_TEXT_H_

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pactivo/export.h"

namespace pactivo {

namespace detail {
class LocalizedTextAccess;
}  // namespace detail

class PACTIVO_EXPORT LocalizedText {
 public:
  using Entry = std::pair<std::string, std::string>;

  LocalizedText() = default;
  LocalizedText(std::initializer_list<Entry> entries);

  // The text for `language`, or null.
  const std::string* find(std::string_view language) const;
  // Sets the text for `language`, replacing an earlier one.
  void set(std::string language, std::string text);

  bool empty() const { return entries_.empty(); }
  std::size_t size() const { return entries_.size(); }
  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }
  void reserve(std::size_t n) { entries_.reserve(n); }

  // Equal when both hold the same texts, in any order.
  bool operator==(const LocalizedText& other) const;

 private:
  // The decoder fills the entries in place.
  friend class detail::LocalizedTextAccess;
  std::vector<Entry> entries_;
};

}  // namespace pactivo

#endif  // PACTIVO_LOCALIZED_TEXT_H_
