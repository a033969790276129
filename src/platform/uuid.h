#ifndef PACTIVO_SRC_PLATFORM_UUID_H_
#define PACTIVO_SRC_PLATFORM_UUID_H_

#include <string>

namespace pactivo::detail {

// A random (version 4) UUID in its canonical upper-case 36-character form.
std::string makeUpperCaseUuid();

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_PLATFORM_UUID_H_
