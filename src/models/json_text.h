// JSON for documents of megabytes: decoding a text without copying it first,
// and encoding into pieces that are passed on as they are made, so that the
// whole encoded text never has to be held.
#ifndef PACTIVO_SRC_MODELS_JSON_TEXT_H_
#define PACTIVO_SRC_MODELS_JSON_TEXT_H_

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "pactivo/json.h"

namespace pactivo::detail {

// How far past the end of a text the decoder reads (what it reads there
// does not matter).
inline constexpr std::size_t kJsonReadAhead = 64;

// As decode(); when `json` has kJsonReadAhead bytes of spare capacity the
// decoder reads the text where it is instead of a padded copy.
template <typename T>
DecodeResult<T> decodeText(const std::string& json);

// Takes the next piece of a text; false stops the writing.
using TextSink = std::function<bool(std::string_view)>;

// Passes the text of encode(value) to `sink` in order, in pieces of about
// 64 KB (one value longer than that in a piece of its own). False when the
// sink refused a piece; nothing more is passed on after that. Defined for
// MainConfiguration.
template <typename T>
bool encodeInPieces(const T& value, const TextSink& sink);

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_MODELS_JSON_TEXT_H_
