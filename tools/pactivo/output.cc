#include <algorithm>
#include <cstdio>

#include "cli.h"

namespace pactivo::cli {

void printTable(const std::vector<std::string>& header,
                const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths(header.size(), 0);
  auto measure = [&](const std::vector<std::string>& row) {
    for (std::size_t i = 0; i < row.size() && i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  };
  measure(header);
  for (const auto& row : rows) measure(row);
  auto print = [&](const std::vector<std::string>& row) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - row[i].size() + 2, ' ');
    }
    std::printf("%s\n", line.c_str());
  };
  print(header);
  for (const auto& row : rows) print(row);
}

std::string jsonString(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += c;
        }
    }
  }
  return out + "\"";
}

std::string localized(const std::optional<LocalizedText>& text) {
  return LocaleUtils::localizedText(text);
}

namespace {

std::string consentText(const std::optional<ConsentStatus>& status) {
  return status ? std::string(rawValue(*status)) : "-";
}

}  // namespace

std::string purposesJson(const std::vector<Purpose>& purposes) {
  std::string json = "[";
  for (const Purpose& p : purposes) {
    if (json.size() > 1) json += ",";
    json += "{\"purpose_id\":" + (p.purposeId ? std::to_string(*p.purposeId) : "null") +
            ",\"name\":" + jsonString(localized(p.purposeName)) +
            ",\"consent_status\":" + jsonString(consentText(p.consentStatus)) +
            ",\"essential\":" + (p.disableOptOut.value_or(false) ? "true" : "false") +
            ",\"tracking\":" + (p.isATTMapped.value_or(false) ? "true" : "false") + "}";
  }
  return json + "]";
}

void printPurposes(const std::vector<Purpose>& purposes) {
  std::vector<std::vector<std::string>> rows;
  for (const Purpose& p : purposes) {
    rows.push_back({p.purposeId ? std::to_string(*p.purposeId) : "-", localized(p.purposeName),
                    consentText(p.consentStatus), p.disableOptOut.value_or(false) ? "yes" : "no",
                    p.isATTMapped.value_or(false) ? "yes" : "no"});
  }
  printTable({"ID", "PURPOSE", "CONSENT", "ESSENTIAL", "TRACKING"}, rows);
}

std::string permissionsJson(const std::vector<AppPermission>& permissions) {
  std::string json = "[";
  for (const AppPermission& p : permissions) {
    if (json.size() > 1) json += ",";
    json +=
        "{\"key\":" + jsonString(p.permissionId ? p.permissionId->rawValue() : "") +
        ",\"name\":" + jsonString(localized(p.nameMap)) +
        ",\"consent_status\":" + jsonString(consentText(p.consentStatus)) +
        ",\"settings_prompt\":" + (p.isSettingsPromptEnabled.value_or(false) ? "true" : "false") +
        "}";
  }
  return json + "]";
}

void printPermissions(const std::vector<AppPermission>& permissions) {
  std::vector<std::vector<std::string>> rows;
  for (const AppPermission& p : permissions) {
    rows.push_back({std::string(p.permissionId ? p.permissionId->rawValue() : ""),
                    localized(p.nameMap), consentText(p.consentStatus),
                    p.isSettingsPromptEnabled.value_or(false) ? "yes" : "no"});
  }
  printTable({"KEY", "PERMISSION", "CONSENT", "SETTINGS PROMPT"}, rows);
}

std::string gcmJson(const std::map<GoogleConsentType, ConsentStatus>& signals) {
  std::string json = "{";
  for (const auto& [type, status] : signals) {
    if (json.size() > 1) json += ",";
    json += jsonString(rawValue(type)) + ":" +
            jsonString(status == ConsentStatus::granted ? "granted" : "denied");
  }
  return json + "}";
}

void printGcm(const std::map<GoogleConsentType, ConsentStatus>& signals) {
  std::vector<std::vector<std::string>> rows;
  for (const auto& [type, status] : signals) {
    rows.push_back(
        {std::string(rawValue(type)), status == ConsentStatus::granted ? "granted" : "denied"});
  }
  printTable({"SIGNAL", "VALUE"}, rows);
}

}  // namespace pactivo::cli
