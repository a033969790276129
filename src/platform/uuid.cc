#include "platform/uuid.h"

#include <uuid/uuid.h>

namespace pactivo::detail {

std::string makeUpperCaseUuid() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37];
  uuid_unparse_upper(uuid, text);
  return text;
}

}  // namespace pactivo::detail
