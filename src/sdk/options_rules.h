// The rules every ConsentSDKOptions obeys wherever it is used.
#ifndef PACTIVO_SRC_SDK_OPTIONS_RULES_H_
#define PACTIVO_SRC_SDK_OPTIONS_RULES_H_

#include "pactivo/options.h"

namespace pactivo::detail {

// Applies the rules to `options` in place: an interval of at least 60
// seconds, a lower-case language, and `mode` following `testingMode`. The
// fields are public, so setup applies them again to whatever the host wrote
// after construction.
void normaliseOptions(ConsentSDKOptions& options);

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_SDK_OPTIONS_RULES_H_
