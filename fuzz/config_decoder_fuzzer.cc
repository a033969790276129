// Feeds arbitrary bytes to the configuration decoder. Whatever decodes must
// encode and decode again to an equal document.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "pactivo/json.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  auto decoded = pactivo::decode<pactivo::MainConfiguration>(input);
  if (!decoded.ok()) return 0;
  auto again = pactivo::decode<pactivo::MainConfiguration>(pactivo::encode(*decoded.value));
  if (!again.ok() || !(*again.value == *decoded.value)) std::abort();
  return 0;
}
