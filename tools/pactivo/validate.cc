// `pactivo validate`: decodes configuration documents as the library does,
// and warns about what decodes but cannot work.
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>

#include "cli.h"

namespace pactivo::cli {
namespace {

std::vector<std::string> warningsFor(const MainConfiguration& config) {
  std::vector<std::string> warnings;
  std::set<std::int64_t> ids;
  if (config.purposes) {
    for (std::size_t i = 0; i < config.purposes->size(); ++i) {
      const Purpose& purpose = (*config.purposes)[i];
      if (!purpose.purposeId) {
        warnings.push_back("purposes[" + std::to_string(i) + "] has no purpose_id");
      } else if (!ids.insert(*purpose.purposeId).second) {
        warnings.push_back("purpose_id " + std::to_string(*purpose.purposeId) + " appears twice");
      }
    }
  }
  auto checkIds = [&](const std::string& where,
                      const std::optional<std::vector<std::int64_t>>& list) {
    if (!list) return;
    for (std::int64_t id : *list) {
      if (!ids.count(id))
        warnings.push_back(where + " names unknown purpose " + std::to_string(id));
    }
  };
  if (config.bannerConfig) {
    for (const auto& [location, category] : config.bannerConfig->locations) {
      if (!config.bannerConfig->categories.count(category)) {
        warnings.push_back("location \"" + location + "\" points to missing category \"" +
                           category + "\"");
      }
    }
    if (!config.bannerConfig->locations.count("default")) {
      warnings.push_back("banner_config.locations has no \"default\" location");
    }
  }
  if (config.attConfig) checkIds("att_or_gad_config.purpose_ids", config.attConfig->purposeIds);
  if (config.gcmConfig) {
    auto checkMapping = [&](const std::string& where, const DefaultMapping& mapping) {
      checkIds(where + ".analytics_storage", mapping.analyticsStorage);
      checkIds(where + ".ad_storage", mapping.adStorage);
      checkIds(where + ".ad_user_data", mapping.adUserData);
      checkIds(where + ".ad_personalization", mapping.adPersonalization);
    };
    if (config.gcmConfig->defaultMapping) {
      checkMapping("gcm_config.default_mapping", *config.gcmConfig->defaultMapping);
    }
    if (config.gcmConfig->regionOverrides) {
      for (const auto& [region, mapping] : *config.gcmConfig->regionOverrides) {
        checkMapping("gcm_config.region_overrides." + region, mapping);
      }
    }
  }
  if (config.settingPrompt && config.settingPrompt->permissions) {
    std::set<std::string> keys;
    if (config.permissions) {
      for (const AppPermission& permission : *config.permissions) {
        if (permission.permissionId) keys.insert(std::string(permission.permissionId->rawValue()));
      }
    }
    for (const auto& [key, enabled] : *config.settingPrompt->permissions) {
      if (!keys.count(key)) {
        warnings.push_back("settings_prompt.permissions names unconfigured permission \"" + key +
                           "\"");
      }
    }
  }
  return warnings;
}

}  // namespace

int runValidate(const CommonOptions& options) {
  if (options.arguments.empty()) throw UsageError("validate takes one or more FILEs");
  bool invalid = false;
  bool warned = false;
  std::string json = "[";
  for (const std::string& path : options.arguments) {
    std::ifstream file(path, std::ios::binary);
    std::string error;
    std::vector<std::string> warnings;
    if (!file) {
      error = "cannot read the file";
    } else {
      std::stringstream bytes;
      bytes << file.rdbuf();
      auto decoded = decode<MainConfiguration>(bytes.str());
      if (decoded.ok()) {
        warnings = warningsFor(*decoded.value);
      } else {
        error = "Failed to Decode MainConfiguration : " + decoded.error;
      }
    }
    invalid |= !error.empty();
    warned |= !warnings.empty();
    if (options.json) {
      // Appended piece by piece: GCC 12 at -O3 wrongly reports
      // -Wrestrict for chains of std::string concatenation.
      if (json.size() > 1) json += ',';
      json.append("{\"file\":").append(jsonString(path));
      json.append(",\"valid\":").append(error.empty() ? "true" : "false");
      json.append(",\"error\":").append(error.empty() ? "null" : jsonString(error));
      json.append(",\"warnings\":[");
      for (std::size_t i = 0; i < warnings.size(); ++i) {
        if (i) json += ',';
        json.append(jsonString(warnings[i]));
      }
      json += "]}";
    } else if (!error.empty()) {
      std::printf("%s: invalid: %s\n", path.c_str(), error.c_str());
    } else {
      std::printf("%s: valid\n", path.c_str());
      for (const std::string& warning : warnings) {
        std::printf("%s: warning: %s\n", path.c_str(), warning.c_str());
      }
    }
  }
  if (options.json) std::printf("%s]\n", json.c_str());
  if (invalid) return 1;
  return warned && options.strict ? 1 : 0;
}

}  // namespace pactivo::cli
