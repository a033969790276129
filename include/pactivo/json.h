// JSON decoding and encoding of the library's records.
//
//   auto decoded = pactivo::decode<pactivo::MainConfiguration>(bytes);
//   if (!decoded.ok()) log(decoded.error);  // "purposes[3].consent_status: unknown value ..."
//   std::string json = pactivo::encode(*decoded.value);
//
// Decoding is strict: a value of the wrong JSON type, an unknown enumeration
// text, a number that is not a whole number or does not fit, or a missing
// required field fails the whole document, with an error naming the JSON
// path. A missing key or null leaves an optional field empty; unknown keys
// are ignored; of duplicate keys the last one wins. Input that is not valid
// JSON (including a byte-order mark, NaN or Infinity, invalid UTF-8, trailing
// bytes or nesting deeper than 1024) fails.
//
// Encoding writes only the fields that hold a value, under the same keys, as
// compact UTF-8 JSON.
//
// Threading: every function may be called from any thread at once.
#ifndef PACTIVO_JSON_H_
#define PACTIVO_JSON_H_

#include <optional>
#include <string>
#include <string_view>

#include "pactivo/configuration.h"
#include "pactivo/consent_records.h"
#include "pactivo/export.h"

namespace pactivo {

// How dates are written. The library's records carry every time as whole
// seconds in an integer field, so the strategy changes nothing in them; it is
// kept so that the encoding helpers read as their callers expect.
enum class DateEncodingStrategy {
  deferredToDate,
  secondsSince1970,
  millisecondsSince1970,
  iso8601
};

template <typename T>
struct DecodeResult {
  std::optional<T> value;
  std::string error;  // why decoding failed; empty on success
  bool ok() const { return value.has_value(); }
};

// Decodes `json` as a T. Defined for MainConfiguration and every record it
// holds, PostConsentsRequest, PurposeConsent, PermissionConsent,
// GenericResponse and CurrentLocationResponse, and for the types that code as
// the JSON string of their raw value: ConsentStatus, PurposeStatus,
// PermissionStatus, ComplianceType, BannerPosition, ButtonShape,
// GoogleConsentType and LumariKey (any string is a LumariKey).
template <typename T>
PACTIVO_EXPORT DecodeResult<T> decode(std::string_view json);

// The JSON text of `value`.
template <typename T>
PACTIVO_EXPORT std::string encode(const T& value);

// The same as encode(); `strategy` applies to dates, which the records do not
// hold.
template <typename T>
std::string toJSONData(const T& value,
                       DateEncodingStrategy strategy = DateEncodingStrategy::deferredToDate) {
  (void)strategy;
  return encode(value);
}

// The JSON text of `value`, or nullopt when it is not valid UTF-8 (a string
// field set by the host to arbitrary bytes).
template <typename T>
std::optional<std::string> toJSONString(
    const T& value, DateEncodingStrategy strategy = DateEncodingStrategy::deferredToDate);

PACTIVO_EXPORT bool isValidUtf8(std::string_view text);

template <typename T>
std::optional<std::string> toJSONString(const T& value, DateEncodingStrategy strategy) {
  std::string data = toJSONData(value, strategy);
  if (!isValidUtf8(data)) return std::nullopt;
  return data;
}

// The name of a type as decoding errors report it ("MainConfiguration",
// "ConsentStatus").
template <typename T>
PACTIVO_EXPORT std::string_view typeName();

}  // namespace pactivo

#endif  // PACTIVO_JSON_H_
