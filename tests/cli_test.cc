// The built `pactivo` program, run as a subprocess.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>

#include "support/test_support.h"

namespace pactivo {
namespace {

struct Result {
  int status = -1;
  std::string output;  // standard output and standard error together
};

Result run(const std::string& arguments) {
  std::string command = std::string(PACTIVO_CLI) + " " + arguments + " 2>&1";
  Result result;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return result;
  std::array<char, 4096> buffer;
  std::size_t n;
  while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
    result.output.append(buffer.data(), n);
  int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

TEST(CliTest, DemoRecordsAChoiceAndShowsTheUpload) {
  testing::TempDir dir;
  Result demo = run("demo --data-dir " + dir.path().string());
  ASSERT_EQ(demo.status, 0) << demo.output;
  EXPECT_NE(demo.output.find("readiness: SDK CDN is ready to use!"), std::string::npos);
  EXPECT_NE(demo.output.find("Banner for location FR: GDPR (opt-in)"), std::string::npos);
  EXPECT_NE(demo.output.find("Uploads received by the application server: 2"), std::string::npos);
  EXPECT_NE(demo.output.find("\"purpose_id\":2,\"consent_status\":\"granted\""), std::string::npos);

  Result inspect = run("inspect --data-dir " + dir.path().string());
  ASSERT_EQ(inspect.status, 0) << inspect.output;
  for (const char* fragment :
       {"SUBJECT_ID", "CONSENT_GIVEN_TYPE", "CONSENT_EXPLICIT", "\n2 ", "PENDING_PURPOSES_LIST",
        "Cached configuration: valid", "\"demo-1\""}) {
    EXPECT_NE(inspect.output.find(fragment), std::string::npos) << fragment << "\n"
                                                                << inspect.output;
  }
  Result json = run("inspect --json --data-dir " + dir.path().string());
  EXPECT_EQ(json.output.rfind("{\"data_directory\":", 0), 0u) << json.output;
  EXPECT_NE(json.output.find("\"version\":3"), std::string::npos);
}

TEST(CliTest, Validate) {
  testing::TempDir dir;
  auto write = [&](const std::string& name, const std::string& text) {
    std::ofstream(dir.path() / name) << text;
    return (dir.path() / name).string();
  };
  struct Case {
    std::string file;
    std::string flags;
    int status;
    std::string expected;
  } cases[] = {
      {std::string(PACTIVO_EXAMPLES_DIR) + "/configuration.json", "", 0, ": valid"},
      {write("bad-status.json", R"({"purposes": [{"consent_status": "opt_in"}]})"), "", 1,
       "invalid: Failed to Decode MainConfiguration : purposes[0].consent_status: unknown value "
       "\"opt_in\""},
      {write("truncated.json", R"({"purposes": [)"), "", 1,
       "invalid: Failed to Decode MainConfiguration : invalid JSON"},
      {write(
           "palette.json",
           R"({"banner_config": {"categories": {"c": {"palette": {}}}, "names_map": {}, "locations": {}}})"),
       "", 1, "banner_config.categories.c.palette: missing required key \"button_background\""},
      {write("warnings.json",
             R"({"purposes": [{"purpose_id": 1}, {"purpose_id": 1}, {}],
                 "banner_config": {"categories": {}, "names_map": {}, "locations": {"DE": "gdpr"}},
                 "att_or_gad_config": {"purpose_ids": [9]},
                 "gcm_config": {"default_mapping": {"ad_storage": [7]}},
                 "settings_prompt": {"permissions": {"NSCameraUsageDescription": true}}})"),
       "", 0, "warning: location \"DE\" points to missing category \"gdpr\""},
      {(dir.path() / "warnings.json").string(), "--strict", 1, "purpose_id 1 appears twice"},
      {(dir.path() / "missing.json").string(), "", 1, "invalid: cannot read the file"},
  };
  for (const auto& c : cases) {
    Result result = run("validate " + c.flags + " " + c.file);
    EXPECT_EQ(result.status, c.status) << c.file << "\n" << result.output;
    EXPECT_NE(result.output.find(c.expected), std::string::npos) << c.file << "\n" << result.output;
  }
  Result warnings = run("validate " + (dir.path() / "warnings.json").string());
  for (const char* fragment :
       {"purposes[2] has no purpose_id", "no \"default\" location",
        "att_or_gad_config.purpose_ids names unknown purpose 9",
        "gcm_config.default_mapping.ad_storage names unknown purpose 7",
        "settings_prompt.permissions names unconfigured permission \"NSCameraUsageDescription\""}) {
    EXPECT_NE(warnings.output.find(fragment), std::string::npos) << fragment;
  }
  Result json = run("validate --json " + (dir.path() / "bad-status.json").string());
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(json.output.rfind("[{\"file\":", 0), 0u) << json.output;
}

TEST(CliTest, BadCommandLinesExitWith2) {
  struct Case {
    std::string arguments;
    std::string message;
  } cases[] = {
      {"", "usage: pactivo COMMAND"},
      {"frobnicate", "pactivo: unknown command \"frobnicate\""},
      {"status --bogus", "pactivo: unknown option --bogus"},
      {"status", "pactivo: --cdn-url is required"},
      {"status --cdn-url", "pactivo: --cdn-url needs a value"},
      {"purposes --cdn-url http://127.0.0.1:9/ --log-level loud", "--log-level is DEBUG"},
      {"demo --interval 0", "--interval takes a positive number of seconds"},
      {"validate", "validate takes one or more FILEs"},
  };
  for (const auto& c : cases) {
    Result result = run(c.arguments);
    EXPECT_EQ(result.status, 2) << c.arguments << "\n" << result.output;
    EXPECT_NE(result.output.find(c.message), std::string::npos) << c.arguments << "\n"
                                                                << result.output;
  }
  for (const char* help : {"--help", "demo --help", "status --help"}) {
    Result result = run(help);
    EXPECT_EQ(result.status, 0) << help;
    EXPECT_NE(result.output.find("Commands:"), std::string::npos) << help;
  }
}

TEST(CliTest, DeploymentCommandsAgainstAnUnreachableServer) {
  testing::TempDir dir;
  Result status = run("status --cdn-url http://127.0.0.1:9/ --data-dir " + dir.path().string());
  EXPECT_EQ(status.status, 1) << status.output;
  EXPECT_NE(status.output.find("SDK CDN is not available!"), std::string::npos) << status.output;
  Result purposes =
      run("purposes --json --cdn-url http://127.0.0.1:9/ --data-dir " + dir.path().string());
  EXPECT_EQ(purposes.status, 1);
}

TEST(CliTest, WatchStopsCleanlyOnInterrupt) {
  testing::TempDir dir;
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(out[1], STDERR_FILENO);
    close(out[0]);
    execl(PACTIVO_CLI, "pactivo", "watch", "--cdn-url", "http://127.0.0.1:9/", "--data-dir",
          dir.path().c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  std::string output;
  char buffer[256];
  // Wait for the first readiness line, then interrupt.
  while (output.find("readiness:") == std::string::npos) {
    ssize_t n = read(out[0], buffer, sizeof buffer);
    if (n <= 0) break;
    output.append(buffer, static_cast<std::size_t>(n));
  }
  kill(child, SIGINT);
  ssize_t n;
  while ((n = read(out[0], buffer, sizeof buffer)) > 0)
    output.append(buffer, static_cast<std::size_t>(n));
  close(out[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output;
  EXPECT_NE(output.find("stopping"), std::string::npos) << output;
}

}  // namespace
}  // namespace pactivo
