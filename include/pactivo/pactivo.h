// Pactivo: consent management for Linux host applications.
//
//   #include <pactivo/pactivo.h>
//
//   pactivo::ConsentSDKOptions options(
//       "https://app.example.com/", "https://cdn.example.com/", "tenant", "app",
//       /*testingMode=*/false, pactivo::LogLevel::warning, /*consentsCheckInterval=*/1800,
//       std::nullopt, std::nullopt, std::nullopt, pactivo::WebViewConfig({}, std::nullopt));
//   auto& sdk = pactivo::ConsentSDK::shared();
//   sdk.setup(options);
//   sdk.isReady([](pactivo::SDKStatus s) { std::puts(std::string(pactivo::status(s)).c_str()); });
//
// Each header documents its own types; this one only gathers them.
#ifndef PACTIVO_PACTIVO_H_
#define PACTIVO_PACTIVO_H_

#include "pactivo/configuration.h"
#include "pactivo/consent_changes.h"
#include "pactivo/consent_records.h"
#include "pactivo/consent_sdk.h"
#include "pactivo/enums.h"
#include "pactivo/json.h"
#include "pactivo/locale_utils.h"
#include "pactivo/localized_text.h"
#include "pactivo/logger.h"
#include "pactivo/lumari_key.h"
#include "pactivo/network_error.h"
#include "pactivo/options.h"
#include "pactivo/platform.h"
#include "pactivo/sdk_listener.h"
#include "pactivo/user_default_manager.h"
#include "pactivo/version.h"

#endif  // PACTIVO_PACTIVO_H_
