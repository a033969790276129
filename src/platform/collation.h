// The platform's "localized standard comparison" for display order: letter
// case ignored, runs of digits compared by value ("Purpose 9" before
// "Purpose 10"), accented letters sorted with their base letter.
#ifndef PACTIVO_SRC_PLATFORM_COLLATION_H_
#define PACTIVO_SRC_PLATFORM_COLLATION_H_

#include <cstddef>
#include <string>
#include <vector>

namespace pactivo::detail {

// The indices of `names` in ascending collation order for `languageCode`;
// equal names keep their original order. Names are UTF-8.
std::vector<std::size_t> localizedStandardOrder(const std::vector<std::string>& names,
                                                const std::string& languageCode);

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_PLATFORM_COLLATION_H_
