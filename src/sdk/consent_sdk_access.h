#ifndef PACTIVO_SRC_SDK_CONSENT_SDK_ACCESS_H_
#define PACTIVO_SRC_SDK_CONSENT_SDK_ACCESS_H_

#include "pactivo/consent_sdk.h"

namespace pactivo::detail {

// Reaches the state behind a facade, for the library's own tools and tests.
class ConsentSDKAccess {
 public:
  static ConsentSDK::Impl& impl(ConsentSDK& sdk) { return *sdk.impl_; }
};

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_SDK_CONSENT_SDK_ACCESS_H_
