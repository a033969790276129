// Hashes of the records, written once against their field tables so that a
// new field cannot be forgotten.
#include <functional>

#include "models/record_fields.h"

namespace pactivo {
namespace {

using detail::IsOptional;
using detail::IsRecord;
template <typename T>
constexpr bool kIsSequence = detail::IsVector<T>::value || detail::IsMap<T>::value;

void combine(std::size_t& seed, std::size_t value) {
  seed ^= value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
}

template <typename T>
void hashInto(std::size_t& seed, const T& value);

template <typename A, typename B>
void hashPair(std::size_t& seed, const std::pair<A, B>& pair) {
  hashInto(seed, pair.first);
  hashInto(seed, pair.second);
}

template <typename T>
void hashInto(std::size_t& seed, const T& value) {
  if constexpr (IsOptional<T>::value) {
    combine(seed, value.has_value());
    if (value) hashInto(seed, *value);
  } else if constexpr (std::is_same_v<T, LocalizedText>) {
    // Order-independent, like LocalizedText's equality.
    std::size_t sum = 0;
    for (const auto& entry : value) {
      std::size_t one = 0;
      hashPair(one, entry);
      sum += one;
    }
    combine(seed, sum);
  } else if constexpr (kIsSequence<T>) {
    combine(seed, value.size());
    for (const auto& item : value) {
      if constexpr (kIsSequence<T> && requires { item.first; }) {
        hashPair(seed, item);
      } else {
        hashInto(seed, item);
      }
    }
  } else if constexpr (IsRecord<T>::value) {
    std::apply([&](const auto&... field) { (hashInto(seed, value.*field.member), ...); },
               detail::RecordFields<T>::list());
  } else {
    combine(seed, std::hash<T>{}(value));
  }
}

template <typename T>
std::size_t hashOf(const T& value) {
  std::size_t seed = 0;
  hashInto(seed, value);
  return seed;
}

}  // namespace
}  // namespace pactivo

#define PACTIVO_DEFINE_HASH(Type)                                                               \
  std::size_t std::hash<pactivo::Type>::operator()(const pactivo::Type& value) const noexcept { \
    return pactivo::hashOf(value);                                                              \
  }
PACTIVO_DEFINE_HASH(LocalizedText)
PACTIVO_DEFINE_HASH(SDK)
PACTIVO_DEFINE_HASH(Purpose)
PACTIVO_DEFINE_HASH(AppPermission)
PACTIVO_DEFINE_HASH(SettingsPrompt)
PACTIVO_DEFINE_HASH(ATTConfig)
PACTIVO_DEFINE_HASH(DefaultMapping)
PACTIVO_DEFINE_HASH(GcmConfig)
PACTIVO_DEFINE_HASH(CustomColors)
PACTIVO_DEFINE_HASH(BannerConfig)
PACTIVO_DEFINE_HASH(ConsentBannerConfig)
PACTIVO_DEFINE_HASH(MainConfiguration)
PACTIVO_DEFINE_HASH(PurposeConsent)
PACTIVO_DEFINE_HASH(PermissionConsent)
PACTIVO_DEFINE_HASH(PostConsentsRequest)
#undef PACTIVO_DEFINE_HASH
