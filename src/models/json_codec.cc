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

#include <cmath>
#include <limits>
#include <variant>

#include "models/record_fields.h"
#include "pactivo/json.h"

namespace pactivo {
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

template <typename T>
T emptyValue() {
  if constexpr (std::is_same_v<T, LumariKey>) {
    return LumariKey::makeCustom("");
  } else {
    return T{};
  }
}

// Walks a parsed document into records, keeping the JSON path so that an
// error can say where it happened.
class Decoder {
 public:
  const std::string& error() const { return error_; }

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
      typename T::value_type decoded = emptyValue<typename T::value_type>();
      if (!decode(value, decoded)) return false;
      out = std::move(decoded);
      return true;
    } else if constexpr (IsVector<T>::value) {
      if (value.type() != element_type::ARRAY) return mismatch("array", value);
      simdjson::dom::array array = value.get_array().value_unsafe();
      out.clear();
      out.reserve(array.size());
      std::size_t index = 0;
      for (element item : array) {
        path_.emplace_back(index++);
        if (!decode(item, out.emplace_back())) return false;
        path_.pop_back();
      }
      return true;
    } else if constexpr (IsMap<T>::value) {
      if (value.type() != element_type::OBJECT) return mismatch("object", value);
      out.clear();
      simdjson::dom::object object = value.get_object().value_unsafe();
      for (auto [key, item] : object) {
        path_.emplace_back(key);
        // Of repeated keys the last entry replaces the earlier one whole; a
        // record must not keep fields the later entry leaves out.
        typename T::mapped_type decoded = emptyValue<typename T::mapped_type>();
        if (!decode(item, decoded)) return false;
        out.insert_or_assign(std::string(key), std::move(decoded));
        path_.pop_back();
      }
      return true;
    } else {
      static_assert(IsRecord<T>::value, "no JSON decoding for this type");
      return decodeRecord(value, out);
    }
  }

  bool fail(const std::string& what) {
    error_ = path_.empty() ? what : pathText() + ": " + what;
    return false;
  }

 private:
  bool mismatch(const char* expected, element found) {
    return fail(std::string("expected ") + expected + ", found " + describe(found));
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
    out = LocalizedText();
    out.reserve(object.size());
    for (auto [key, item] : object) {
      if (item.type() != element_type::STRING) {
        path_.emplace_back(key);
        return mismatch("string", item);
      }
      std::string_view text = item.get_string().value_unsafe();
      out.set(std::string(key), std::string(text));
    }
    return true;
  }

  template <typename Record>
  bool decodeRecord(element value, Record& out) {
    if (value.type() != element_type::OBJECT) return mismatch("object", value);
    constexpr auto fields = detail::RecordFields<Record>::list();
    constexpr std::size_t count = std::tuple_size_v<decltype(fields)>;
    static_assert(count <= 64);
    std::uint64_t present = 0;
    simdjson::dom::object object = value.get_object().value_unsafe();
    for (simdjson::dom::key_value_pair member : object) {
      std::string_view key = member.key;
      element item = member.value;
      bool ok = true;
      std::size_t index = 0;
      // Compares the key against each field in turn; the first match decodes.
      std::apply(
          [&](const auto&... field) {
            (void)((matchField(field, index++, key, item, out, present, ok)) || ...);
          },
          fields);
      if (!ok) return false;
    }
    bool ok = true;
    std::size_t index = 0;
    std::apply(
        [&](const auto&... field) { ((ok = ok && checkRequired(field, index++, present)), ...); },
        fields);
    return ok;
  }

  template <typename Record, typename Member>
  bool matchField(const detail::Field<Record, Member>& field, std::size_t index,
                  std::string_view key, element item, Record& out, std::uint64_t& present,
                  bool& ok) {
    if (field.rules & detail::kNotInJson) return false;
    if (field.key != key) return false;
    Member& member = out.*field.member;
    if (item.is_null()) {
      if constexpr (IsOptional<Member>::value) member.reset();
      present &= ~(std::uint64_t{1} << index);
      return true;
    }
    path_.emplace_back(key);
    ok = decode(item, member);
    if (ok) path_.pop_back();
    present |= std::uint64_t{1} << index;
    return true;
  }

  template <typename Record>
  bool matchField(const detail::Constant& field, std::size_t, std::string_view key, element,
                  Record&, std::uint64_t&, bool&) {
    return field.key == key;
  }

  template <typename Record, typename Member>
  bool checkRequired(const detail::Field<Record, Member>& field, std::size_t index,
                     std::uint64_t present) {
    if (!(field.rules & detail::kRequired) || (present & (std::uint64_t{1} << index))) return true;
    return fail("missing required key \"" + std::string(field.key) + "\"");
  }
  bool checkRequired(const detail::Constant&, std::size_t, std::uint64_t) { return true; }

  std::string pathText() const {
    std::string text;
    for (const auto& segment : path_) {
      if (const auto* key = std::get_if<std::string_view>(&segment)) {
        if (!text.empty()) text += '.';
        text += *key;
      } else {
        text += '[';
        text += std::to_string(std::get<std::size_t>(segment));
        text += ']';
      }
    }
    return text;
  }

  std::vector<std::variant<std::string_view, std::size_t>> path_;
  std::string error_;
};

simdjson::dom::parser& threadParser() {
  // Reused per thread: the parser keeps its buffers between documents.
  thread_local simdjson::dom::parser parser;
  return parser;
}

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

class Encoder {
 public:
  explicit Encoder(Writer& writer) : writer_(writer) {}

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
      for (const auto& item : value) write(item);
      writer_.EndArray();
    } else if constexpr (IsMap<T>::value) {
      writer_.StartObject();
      for (const auto& [key, item] : value) {
        writeKey(key);
        write(item);
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

  Writer& writer_;
};

}  // namespace

template <typename T>
DecodeResult<T> decode(std::string_view json) {
  DecodeResult<T> result;
  if (json.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
    result.error = "invalid JSON: the document starts with a byte-order mark";
    return result;
  }
  element root;
  if (auto error = threadParser().parse(json.data(), json.size()).get(root)) {
    result.error = std::string("invalid JSON: ") + simdjson::error_message(error);
    return result;
  }
  Decoder decoder;
  T value = emptyValue<T>();
  if (decoder.decode(root, value)) {
    result.value = std::move(value);
  } else {
    result.error = decoder.error();
  }
  return result;
}

template <typename T>
std::string encode(const T& value) {
  rapidjson::StringBuffer buffer;
  Writer writer(buffer);
  Encoder(writer).write(value);
  return std::string(buffer.GetString(), buffer.GetSize());
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

}  // namespace pactivo
