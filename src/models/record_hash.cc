// Hashes of the records, written once against their field tables so that a
// new field cannot be forgotten.
#include <functional>

#include "models/record_fields.h"
#include "pactivo/options.h"

namespace pactivo {
namespace {

using detail::IsOptional;
using detail::IsRecord;
template <typename T>
constexpr bool kIsSequence = detail::IsVector<T>::value || detail::IsMap<T>::value;

void combine(std::size_t& state, std::size_t value) {
  state ^= value + 0x9e3779b97f4a7c15ULL + (state << 6) + (state >> 2);
}

template <typename T>
void hashInto(std::size_t& state, const T& value);

template <typename A, typename B>
void hashPair(std::size_t& state, const std::pair<A, B>& pair) {
  hashInto(state, pair.first);
  hashInto(state, pair.second);
}

template <typename T>
void hashInto(std::size_t& state, const T& value) {
  if constexpr (IsOptional<T>::value) {
    combine(state, value.has_value());
    if (value) hashInto(state, *value);
  } else if constexpr (std::is_same_v<T, LocalizedText>) {
    // Order-independent, like LocalizedText's equality.
    std::size_t sum = 0;
    for (const auto& entry : value) {
      std::size_t one = 0;
      hashPair(one, entry);
      sum += one;
    }
    combine(state, sum);
  } else if constexpr (kIsSequence<T>) {
    combine(state, value.size());
    for (const auto& item : value) {
      if constexpr (kIsSequence<T> && requires { item.first; }) {
        hashPair(state, item);
      } else {
        hashInto(state, item);
      }
    }
  } else if constexpr (IsRecord<T>::value) {
    std::apply(
        [&](const auto&... field) {
          // A constant member is the same in every value and adds nothing.
          auto member = [&](const auto& one) {
            if constexpr (!std::is_same_v<std::decay_t<decltype(one)>, detail::Constant>) {
              hashInto(state, value.*one.member);
            }
          };
          (member(field), ...);
        },
        detail::RecordFields<T>::list());
  } else {
    combine(state, std::hash<T>{}(value));
  }
}

template <typename T>
std::size_t hashOf(const T& value) {
  std::size_t state = 0;
  hashInto(state, value);
  return state;
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

std::size_t std::hash<pactivo::WebViewConfig>::operator()(
    const pactivo::WebViewConfig& value) const noexcept {
  std::size_t state = 0;
  pactivo::hashInto(state, value.allowedDomains);
  pactivo::hashInto(state, value.blockedPageHTML);
  return state;
}
