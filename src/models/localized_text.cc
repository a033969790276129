#include "pactivo/localized_text.h"

#include <algorithm>

namespace pactivo {

LocalizedText::LocalizedText(std::initializer_list<Entry> entries) {
  for (const Entry& entry : entries) set(entry.first, entry.second);
}

const std::string* LocalizedText::find(std::string_view language) const {
  for (const Entry& entry : entries_) {
    if (entry.first == language) return &entry.second;
  }
  return nullptr;
}

void LocalizedText::set(std::string language, std::string text) {
  for (Entry& entry : entries_) {
    if (entry.first == language) {
      entry.second = std::move(text);
      return;
    }
  }
  entries_.emplace_back(std::move(language), std::move(text));
}

bool LocalizedText::operator==(const LocalizedText& other) const {
  if (entries_.size() != other.entries_.size()) return false;
  return std::all_of(entries_.begin(), entries_.end(), [&other](const Entry& entry) {
    const std::string* text = other.find(entry.first);
    return text != nullptr && *text == entry.second;
  });
}

}  // namespace pactivo
