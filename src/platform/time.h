#ifndef PACTIVO_SRC_PLATFORM_TIME_H_
#define PACTIVO_SRC_PLATFORM_TIME_H_

#include <chrono>
#include <cstdint>

#include "pactivo/platform.h"

namespace pactivo::detail {

// Whole seconds since 1970 UTC by the platform's clock, the fraction dropped.
inline std::int64_t currentTimeSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             currentPlatform()->now().time_since_epoch())
      .count();
}

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_PLATFORM_TIME_H_
