#include "pactivo/consent_changes.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <utility>

#include "runtime/consent_feed.h"

namespace pactivo {

std::string encode(const ConsentChanges& changes) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  auto text = [&](std::string_view value) {
    writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
  };
  auto consent = [&](const char* key, std::optional<ConsentStatus> value) {
    writer.Key(key);
    value ? text(rawValue(*value)) : (void)writer.Null();
  };
  writer.StartObject();
  writer.Key("cause");
  text(rawValue(changes.cause));
  writer.Key("changes");
  writer.StartArray();
  for (const ConsentChange& change : changes.changes) {
    writer.StartObject();
    if (change.purposeId) {
      writer.Key("purpose_id");
      writer.Int64(*change.purposeId);
    } else {
      writer.Key("permission");
      text(change.permission.value_or(""));
    }
    consent("before", change.before);
    consent("after", change.after);
    writer.EndObject();
  }
  writer.EndArray();
  writer.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize());
}

ConsentObservation::ConsentObservation(ConsentObservation&& other) noexcept
    : id_(std::exchange(other.id_, 0)) {}

ConsentObservation& ConsentObservation::operator=(ConsentObservation&& other) noexcept {
  if (this != &other) {
    cancel();
    id_ = std::exchange(other.id_, 0);
  }
  return *this;
}

ConsentObservation::~ConsentObservation() { cancel(); }

void ConsentObservation::cancel() {
  if (id_ != 0) detail::ConsentFeed::shared().cancel(std::exchange(id_, 0));
}

}  // namespace pactivo
