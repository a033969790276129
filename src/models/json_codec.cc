// Decoding with simdjson's DOM parser, encoding with RapidJSON's Writer; both
// stay inside this file.
// RapidJSON scans strings for characters to escape sixteen bytes at a time
// when told the CPU has SSE2 (every x86-64 does).
#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <variant>

#include "models/json_text.h"
#include "models/record_fields.h"
#include "pactivo/json.h"

namespace pactivo {

class detail::LocalizedTextAccess {
 public:
  static std::vector<LocalizedText::Entry>& entries(LocalizedText& text) { return text.entries_; }
};

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

using detail::IsMap;
using detail::IsOptional;
using detail::IsRecord;
using detail::IsVector;

template <typename T>
constexpr bool kIsStringEnum =
    std::is_same_v<T, ConsentStatus> || std::is_same_v<T, ComplianceType> ||
    std::is_same_v<T, BannerPosition> || std::is_same_v<T, ButtonShape> ||
    std::is_same_v<T, PurposeStatus> || std::is_same_v<T, PermissionStatus> ||
    std::is_same_v<T, GoogleConsentType>;

// The name decoding errors give a type: a record's own, or the value type's.
template <typename T>
constexpr std::string_view nameOf() {
  if constexpr (IsRecord<T>::value) {
    return detail::RecordFields<T>::name;
  } else if constexpr (std::is_same_v<T, ConsentStatus>) {
    return "ConsentStatus";
  } else if constexpr (std::is_same_v<T, ComplianceType>) {
    return "ComplianceType";
  } else if constexpr (std::is_same_v<T, BannerPosition>) {
    return "BannerPosition";
  } else if constexpr (std::is_same_v<T, ButtonShape>) {
    return "ButtonShape";
  } else if constexpr (std::is_same_v<T, PurposeStatus>) {
    return "PurposeStatus";
  } else if constexpr (std::is_same_v<T, PermissionStatus>) {
    return "PermissionStatus";
  } else if constexpr (std::is_same_v<T, GoogleConsentType>) {
    return "GoogleConsentType";
  } else {
    static_assert(std::is_same_v<T, LumariKey>, "no JSON coding for this type");
    return "LumariKey";
  }
}

const char* describe(element value) {
  switch (value.type()) {
    case element_type::ARRAY:
      return "array";
    case element_type::OBJECT:
      return "object";
    case element_type::INT64:
    case element_type::UINT64:
      return "integer";
    case element_type::DOUBLE:
      return "number";
    case element_type::STRING:
      return "string";
    case element_type::BOOL:
      return "boolean";
    case element_type::NULL_VALUE:
      return "null";
  }
  return "value";
}

// Equal texts. Language codes are two or three bytes long: compared here,
// not in a call to memcmp, which costs more than the comparison.
bool sameText(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

template <typename T>
T emptyValue() {
  if constexpr (std::is_same_v<T, LumariKey>) {
    return LumariKey::makeCustom("");
  } else {
    return T{};
  }
}

// Walks a parsed document into records. The JSON path of a failure is
// collected while the failure unwinds, so a document that decodes pays
// nothing for it.
class Decoder {
 public:
  // "purposes[3].consent_status: unknown value ..."; valid while the parsed
  // document lives, as the path refers to its keys.
  std::string error() const {
    std::string text;
    for (auto segment = failedPath_.rbegin(); segment != failedPath_.rend(); ++segment) {
      if (const auto* key = std::get_if<std::string_view>(&*segment)) {
        if (!text.empty()) text += '.';
        text += *key;
      } else {
        text += '[';
        text += std::to_string(std::get<std::size_t>(*segment));
        text += ']';
      }
    }
    return text.empty() ? what_ : text + ": " + what_;
  }

  template <typename T>
  bool decode(element value, T& out) {
    if constexpr (std::is_same_v<T, bool>) {
      if (value.type() != element_type::BOOL) return mismatch("boolean", value);
      out = value.get_bool().value_unsafe();
      return true;
    } else if constexpr (std::is_same_v<T, std::int64_t>) {
      return decodeInteger(value, out);
    } else if constexpr (std::is_same_v<T, std::string>) {
      if (value.type() != element_type::STRING) return mismatch("string", value);
      std::string_view text = value.get_string().value_unsafe();
      out.assign(text.data(), text.size());
      return true;
    } else if constexpr (kIsStringEnum<T>) {
      if (value.type() != element_type::STRING) return mismatch("string", value);
      std::string_view text = value.get_string().value_unsafe();
      auto parsed = fromRawValue<T>(text);
      if (!parsed) return fail("unknown value \"" + std::string(text) + "\"");
      out = *parsed;
      return true;
    } else if constexpr (std::is_same_v<T, LumariKey>) {
      if (value.type() != element_type::STRING) return mismatch("string", value);
      out = LumariKey::fromRawValue(value.get_string().value_unsafe());
      return true;
    } else if constexpr (std::is_same_v<T, LocalizedText>) {
      return decodeLocalizedText(value, out);
    } else if constexpr (IsOptional<T>::value) {
      if (value.is_null()) {
        out.reset();
        return true;
      }
      // Decoded in place: a new value replaces an earlier one whole (a
      // repeated key), and a failure discards the whole document anyway.
      if constexpr (std::is_same_v<typename T::value_type, std::string>) {
        if (value.type() != element_type::STRING) return mismatch("string", value);
        std::string_view text = value.get_string().value_unsafe();
        out.emplace(text.data(), text.size());
        return true;
      } else if constexpr (std::is_same_v<typename T::value_type, LumariKey>) {
        out.emplace(emptyValue<LumariKey>());
      } else {
        out.emplace();
      }
      return decode(value, *out);
    } else if constexpr (IsVector<T>::value) {
      if (value.type() != element_type::ARRAY) return mismatch("array", value);
      simdjson::dom::array array = value.get_array().value_unsafe();
      out.clear();
      out.reserve(array.size());
      std::size_t index = 0;
      for (element item : array) {
        if (!decode(item, out.emplace_back())) return failedIn(index);
        ++index;
      }
      return true;
    } else if constexpr (IsMap<T>::value) {
      if (value.type() != element_type::OBJECT) return mismatch("object", value);
      out.clear();
      simdjson::dom::object object = value.get_object().value_unsafe();
      for (auto [key, item] : object) {
        // Of repeated keys the last entry replaces the earlier one whole; a
        // record must not keep fields the later entry leaves out.
        typename T::mapped_type decoded = emptyValue<typename T::mapped_type>();
        if (!decode(item, decoded)) return failedIn(key);
        out.insert_or_assign(std::string(key), std::move(decoded));
      }
      return true;
    } else {
      static_assert(IsRecord<T>::value, "no JSON decoding for this type");
      return decodeRecord(value, out);
    }
  }

  bool fail(std::string what) {
    what_ = std::move(what);
    return false;
  }

 private:
  bool mismatch(const char* expected, element found) {
    return fail(std::string("expected ") + expected + ", found " + describe(found));
  }

  // Adds the step into the failed value to the path, innermost first.
  bool failedIn(std::variant<std::string_view, std::size_t> segment) {
    failedPath_.push_back(segment);
    return false;
  }

  bool decodeInteger(element value, std::int64_t& out) {
    switch (value.type()) {
      case element_type::INT64:
        out = value.get_int64().value_unsafe();
        return true;
      case element_type::UINT64:
        return fail("integer " + std::to_string(value.get_uint64().value_unsafe()) +
                    " does not fit in 64 bits");
      case element_type::DOUBLE: {
        double number = value.get_double().value_unsafe();
        // 2^63 is exactly representable; anything at or above it does not fit.
        constexpr double kLimit = 9223372036854775808.0;
        if (std::trunc(number) != number) return fail("expected integer, found a fraction");
        if (number >= kLimit || number < -kLimit) return fail("integer does not fit in 64 bits");
        out = static_cast<std::int64_t>(number);
        return true;
      }
      default:
        return mismatch("integer", value);
    }
  }

  bool decodeLocalizedText(element value, LocalizedText& out) {
    if (value.type() != element_type::OBJECT) return mismatch("object", value);
    simdjson::dom::object object = value.get_object().value_unsafe();
    // Built in place: there are thousands of these in a document.
    std::vector<LocalizedText::Entry>& entries = detail::LocalizedTextAccess::entries(out);
    entries.clear();
    entries.reserve(object.size());
    for (auto [key, item] : object) {
      if (item.type() != element_type::STRING) {
        mismatch("string", item);
        return failedIn(key);
      }
      std::string_view text = item.get_string().value_unsafe();
      // Of repeated languages the last text wins, as LocalizedText::set has it.
      auto same = std::find_if(
          entries.begin(), entries.end(),
          [key = key](const LocalizedText::Entry& e) { return sameText(e.first, key); });
      if (same != entries.end()) {
        same->second.assign(text.data(), text.size());
      } else {
        entries.emplace_back(std::piecewise_construct,
                             std::forward_as_tuple(key.data(), key.size()),
                             std::forward_as_tuple(text.data(), text.size()));
      }
    }
    return true;
  }

  template <typename Record>
  bool decodeRecord(element value, Record& out) {
    if (value.type() != element_type::OBJECT) return mismatch("object", value);
    static constexpr auto fields = detail::RecordFields<Record>::list();
    constexpr std::size_t count = std::tuple_size_v<decltype(fields)>;
    static_assert(count <= 64);
    std::uint64_t present = 0;
    // Members mostly come in the table's order (the cache file always has
    // it), so the search for a key starts after the field matched last.
    std::size_t next = 0;
    simdjson::dom::object object = value.get_object().value_unsafe();
    for (simdjson::dom::key_value_pair member : object) {
      const std::size_t index = fieldIndex(kKeys<Record>, member.key, next);
      if (index == count) continue;  // not one of ours
      next = index + 1;
      if (!decodeField(fields, index, member.value, out, present,
                       std::make_index_sequence<count>())) {
        return failedIn(member.key);
      }
    }
    bool ok = true;
    std::size_t index = 0;
    std::apply(
        [&](const auto&... field) { ((ok = ok && checkRequired(field, index++, present)), ...); },
        fields);
    return ok;
  }

  // Each field's key, empty for a field that is not in JSON (no key of a
  // document selects it).
  template <typename Record>
  static constexpr auto keysOf() {
    constexpr auto fields = detail::RecordFields<Record>::list();
    return std::apply(
        [](const auto&... field) {
          return std::array<std::string_view, sizeof...(field)>{keyOf(field)...};
        },
        fields);
  }
  template <typename Record, typename Member>
  static constexpr std::string_view keyOf(const detail::Field<Record, Member>& field) {
    return field.rules & detail::kNotInJson ? std::string_view() : field.key;
  }
  static constexpr std::string_view keyOf(const detail::Constant& field) { return field.key; }
  template <typename Record>
  static constexpr auto kKeys = keysOf<Record>();

  // The index of the field named `key`, searched from `start` round; the
  // field count when there is none.
  template <std::size_t N>
  static std::size_t fieldIndex(const std::array<std::string_view, N>& keys, std::string_view key,
                                std::size_t start) {
    if (key.empty()) return N;
    for (std::size_t i = 0; i < N; ++i) {
      std::size_t index = start + i < N ? start + i : start + i - N;
      if (keys[index] == key) return index;
    }
    return N;
  }

  template <typename Fields, typename Record, std::size_t... I>
  bool decodeField(const Fields& fields, std::size_t index, element item, Record& out,
                   std::uint64_t& present, std::index_sequence<I...>) {
    bool ok = true;
    (void)((index == I && (ok = decodeOne(std::get<I>(fields), I, item, out, present), true)) ||
           ...);
    return ok;
  }

  template <typename Record, typename Member>
  bool decodeOne(const detail::Field<Record, Member>& field, std::size_t index, element item,
                 Record& out, std::uint64_t& present) {
    Member& member = out.*field.member;
    if (item.is_null()) {
      if constexpr (IsOptional<Member>::value) member.reset();
      present &= ~(std::uint64_t{1} << index);
      return true;
    }
    present |= std::uint64_t{1} << index;
    return decode(item, member);
  }

  template <typename Record>
  bool decodeOne(const detail::Constant&, std::size_t, element, Record&, std::uint64_t&) {
    return true;  // fixed by the record type; what the document says is ignored
  }

  template <typename Record, typename Member>
  bool checkRequired(const detail::Field<Record, Member>& field, std::size_t index,
                     std::uint64_t present) {
    if (!(field.rules & detail::kRequired) || (present & (std::uint64_t{1} << index))) return true;
    return fail("missing required key \"" + std::string(field.key) + "\"");
  }
  bool checkRequired(const detail::Constant&, std::size_t, std::uint64_t) { return true; }

  std::vector<std::variant<std::string_view, std::size_t>> failedPath_;
  std::string what_;
};

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

// Text reaching this size is handed on when encoding in pieces.
constexpr std::size_t kPieceBytes = 64 * 1024;

class Encoder {
 public:
  explicit Encoder(Writer& writer) : writer_(writer) {}
  // Hands the text to `sink` between values, in pieces of about
  // kPieceBytes, instead of collecting all of it in `buffer`.
  Encoder(Writer& writer, rapidjson::StringBuffer& buffer, const detail::TextSink& sink)
      : writer_(writer), buffer_(&buffer), sink_(&sink) {}

  // Hands on what is left; false when the sink refused any piece.
  bool finish() {
    handOver(0);
    return !refused_;
  }

  template <typename T>
  void write(const T& value) {
    if constexpr (std::is_same_v<T, bool>) {
      writer_.Bool(value);
    } else if constexpr (std::is_same_v<T, std::int64_t>) {
      writer_.Int64(value);
    } else if constexpr (std::is_same_v<T, std::string>) {
      writeString(value);
    } else if constexpr (kIsStringEnum<T>) {
      writeString(rawValue(value));
    } else if constexpr (std::is_same_v<T, LumariKey>) {
      writeString(value.rawValue());
    } else if constexpr (std::is_same_v<T, LocalizedText>) {
      writer_.StartObject();
      for (const auto& [language, text] : value) {
        writeKey(language);
        writeString(text);
      }
      writer_.EndObject();
    } else if constexpr (IsOptional<T>::value) {
      if (value) {
        write(*value);
      } else {
        writer_.Null();
      }
    } else if constexpr (IsVector<T>::value) {
      writer_.StartArray();
      for (const auto& item : value) {
        write(item);
        handOver(kPieceBytes);
      }
      writer_.EndArray();
    } else if constexpr (IsMap<T>::value) {
      writer_.StartObject();
      for (const auto& [key, item] : value) {
        writeKey(key);
        write(item);
        handOver(kPieceBytes);
      }
      writer_.EndObject();
    } else {
      static_assert(IsRecord<T>::value, "no JSON encoding for this type");
      writer_.StartObject();
      std::apply([&](const auto&... field) { (writeField(field, value), ...); },
                 detail::RecordFields<T>::list());
      writer_.EndObject();
    }
  }

 private:
  template <typename Record, typename Member>
  void writeField(const detail::Field<Record, Member>& field, const Record& record) {
    if (field.rules & detail::kNotInJson) return;
    const Member& member = record.*field.member;
    if constexpr (IsOptional<Member>::value) {
      if (!member) return;
    }
    writeKey(field.key);
    write(member);
  }
  template <typename Record>
  void writeField(const detail::Constant& field, const Record&) {
    writeKey(field.key);
    writeString(field.value);
  }

  void writeKey(std::string_view key) {
    writer_.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
  }
  void writeString(std::string_view text) {
    writer_.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  }

  // Passes the buffered text to the sink once it holds at least `atLeast`
  // bytes. After a refusal the rest is dropped.
  void handOver(std::size_t atLeast) {
    if (sink_ == nullptr || buffer_->GetSize() < atLeast || buffer_->GetSize() == 0) return;
    if (!refused_ && !(*sink_)(std::string_view(buffer_->GetString(), buffer_->GetSize()))) {
      refused_ = true;
    }
    buffer_->Clear();
  }

  Writer& writer_;
  rapidjson::StringBuffer* buffer_ = nullptr;
  const detail::TextSink* sink_ = nullptr;
  bool refused_ = false;
};

static_assert(detail::kJsonReadAhead == simdjson::SIMDJSON_PADDING);

// `readAhead`: the kJsonReadAhead bytes after `json` may be read, so the
// parser needs no padded copy of it.
template <typename T>
DecodeResult<T> decodeJson(std::string_view json, bool readAhead) {
  DecodeResult<T> result;
  if (json.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
    result.error = "invalid JSON: the document starts with a byte-order mark";
    return result;
  }
  // A parser of its own, freed on return: a parser keeps buffers the size
  // of the largest document it has read (several times that document), and
  // nothing of a document may stay behind on the thread that decoded it.
  simdjson::dom::parser parser;
  element root;
  if (auto error = parser.parse(json.data(), json.size(), !readAhead).get(root)) {
    result.error = std::string("invalid JSON: ") + simdjson::error_message(error);
    return result;
  }
  Decoder decoder;
  result.value.emplace(emptyValue<T>());
  if (!decoder.decode(root, *result.value)) {
    result.value.reset();
    result.error = decoder.error();
  }
  return result;
}

}  // namespace

template <typename T>
DecodeResult<T> decode(std::string_view json) {
  return decodeJson<T>(json, false);
}

template <typename T>
DecodeResult<T> detail::decodeText(const std::string& json) {
  return decodeJson<T>(json, json.capacity() - json.size() >= kJsonReadAhead);
}

template <typename T>
std::string encode(const T& value) {
  rapidjson::StringBuffer buffer;
  Writer writer(buffer);
  Encoder(writer).write(value);
  return std::string(buffer.GetString(), buffer.GetSize());
}

template <typename T>
bool detail::encodeInPieces(const T& value, const TextSink& sink) {
  rapidjson::StringBuffer buffer(nullptr, 2 * kPieceBytes);
  Writer writer(buffer);
  Encoder encoder(writer, buffer, sink);
  encoder.write(value);
  return encoder.finish();
}

template <typename T>
std::string_view typeName() {
  return nameOf<T>();
}

bool isValidUtf8(std::string_view text) {
  return simdjson::validate_utf8(text.data(), text.size());
}

#define PACTIVO_JSON_TYPE(T)                                           \
  template PACTIVO_EXPORT DecodeResult<T> decode<T>(std::string_view); \
  template DecodeResult<T> detail::decodeText<T>(const std::string&);  \
  template PACTIVO_EXPORT std::string encode<T>(const T&);             \
  template PACTIVO_EXPORT std::string_view typeName<T>();

PACTIVO_JSON_TYPE(MainConfiguration)
PACTIVO_JSON_TYPE(ConsentBannerConfig)
PACTIVO_JSON_TYPE(BannerConfig)
PACTIVO_JSON_TYPE(CustomColors)
PACTIVO_JSON_TYPE(Purpose)
PACTIVO_JSON_TYPE(SDK)
PACTIVO_JSON_TYPE(AppPermission)
PACTIVO_JSON_TYPE(SettingsPrompt)
PACTIVO_JSON_TYPE(ATTConfig)
PACTIVO_JSON_TYPE(GcmConfig)
PACTIVO_JSON_TYPE(DefaultMapping)
PACTIVO_JSON_TYPE(PostConsentsRequest)
PACTIVO_JSON_TYPE(PurposeConsent)
PACTIVO_JSON_TYPE(PermissionConsent)
PACTIVO_JSON_TYPE(GenericResponse)
PACTIVO_JSON_TYPE(CurrentLocationResponse)
// Values that code as the JSON string of their raw value.
PACTIVO_JSON_TYPE(ConsentStatus)
PACTIVO_JSON_TYPE(ComplianceType)
PACTIVO_JSON_TYPE(BannerPosition)
PACTIVO_JSON_TYPE(ButtonShape)
PACTIVO_JSON_TYPE(PurposeStatus)
PACTIVO_JSON_TYPE(PermissionStatus)
PACTIVO_JSON_TYPE(GoogleConsentType)
PACTIVO_JSON_TYPE(LumariKey)

#undef PACTIVO_JSON_TYPE

template bool detail::encodeInPieces<MainConfiguration>(const MainConfiguration&, const TextSink&);

}  // namespace pactivo
