// The built `pactivo` program, run as a subprocess.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>

#include "support/test_server.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

// Runs a shell command line; its exit status and its standard output and
// error together.
std::pair<int, std::string> shell(const std::string& line) {
  FILE* pipe = popen(("exec 2>&1; " + line).c_str(), "r");
  if (pipe == nullptr) return {-1, ""};
  std::string output;
  std::array<char, 4096> buffer;
  while (std::size_t n = fread(buffer.data(), 1, buffer.size(), pipe))
    output.append(buffer.data(), n);
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
}

TEST(CliTest, ExitCodesAndOutput) {
  // A content server for the document, which also takes the uploads.
  testing::TestServer server;
  server.setHandler([](const httplib::Request& in, httplib::Response& out) {
    out.set_content(
        in.method == "GET" ? testing::exampleDocument() : R"({"status": 0, "message": "ok"})",
        "application/json");
  });
  const std::string offline = " --cdn-url http://127.0.0.1:9/ --data-dir {dir}";
  const std::string online = " --cdn-url {cdn} --data-dir {dir}";
  struct Case {
    std::string line;  // {cli} is the program, {dir} a fresh directory, {data} tests/data/cli
    int status;
    std::vector<std::string> output;  // each in the output
  } cases[] = {
      {"{cli}", 2, {"usage: pactivo COMMAND"}},
      {"{cli} frobnicate", 2, {"pactivo: unknown command \"frobnicate\""}},
      {"{cli} status --bogus", 2, {"pactivo: unknown option --bogus"}},
      {"{cli} status", 2, {"pactivo: --cdn-url is required"}},
      {"{cli} status --cdn-url", 2, {"pactivo: --cdn-url needs a value"}},
      {"{cli} status --log-level loud", 2, {"--log-level is DEBUG, INFO, WARNING or ERROR"}},
      {"{cli} demo --interval 0", 2, {"--interval takes a positive number of seconds"}},
      {"{cli} validate", 2, {"validate takes one or more FILEs"}},
      {"{cli} --help", 0, {"Commands:"}},
      {"{cli} demo --help", 0, {"Commands:"}},

      // The decoder's own texts are pinned by its tests; one shows how they are printed.
      {"{cli} validate " PACTIVO_EXAMPLES_DIR "/configuration.json", 0, {": valid"}},
      {"{cli} validate {data}bad-status.json",
       1,
       {"invalid: Failed to Decode MainConfiguration : purposes[0].consent_status: unknown value "
        "\"opt_in\""}},
      {"printf ^; {cli} validate --json {data}bad-status.json", 1, {"^[{\"file\":"}},
      {"{cli} validate {data}warnings.json",
       0,
       {"warning: location \"DE\" points to missing category \"gdpr\"",
        "purposes[2] has no purpose_id", "no \"default\" location",
        "att_or_gad_config.purpose_ids names unknown purpose 9",
        "gcm_config.default_mapping.ad_storage names unknown purpose 7",
        "settings_prompt.permissions names unconfigured permission \"NSCameraUsageDescription\""}},
      {"{cli} validate --strict {data}warnings.json", 1, {"purpose_id 1 appears twice"}},
      {"{cli} validate {data}missing.json", 1, {"invalid: cannot read the file"}},

      {"{cli} status" + offline, 1, {"SDK CDN is not available!"}},
      // The network options reach the platform: a broken client certificate
      // is named at setup, and a dead proxy stands between the box and a
      // server that works.
      {"{cli} status --client-cert /x.pem" + online, 0, {"certificate /x.pem cannot be read"}},
      {"{cli} status --proxy http://127.0.0.1:9" + online, 1, {"SDK CDN is not available!"}},
      {"{cli} purposes --json" + offline, 1, {}},
      // Purpose 1 may not be declined; the choice is refused.
      {"{cli} set-purpose 1 declined" + online, 1, {"recorded: false"}},
      {"{cli} set-purpose 2 granted" + online, 0, {"recorded: true"}},
      // The defaults setup records reach the server, or stay pending.
      {"{cli} check --json" + online, 0, {"{\"upload_pending\":false}"}},
      {"{cli} check --app-url http://127.0.0.1:9/" + online, 1, {"upload pending: true"}},
      {"{cli} demo --data-dir {dir} && {cli} inspect --data-dir {dir} && "
       "{cli} inspect --json --data-dir {dir}",
       0,
       {"readiness: SDK CDN is ready to use!", "Banner for location FR: GDPR (opt-in)",
        "Uploads received by the application server: 2",
        "\"purpose_id\":2,\"consent_status\":\"granted\"", "SUBJECT_ID", "CONSENT_GIVEN_TYPE",
        "CONSENT_EXPLICIT", "\n2 ", "PENDING_PURPOSES_LIST", "Cached configuration: valid",
        "\"demo-1\"", "\n{\"data_directory\":", "\"version\":3"}},
      // Interrupted once ready, `watch` stops cleanly.
      {"{cli} watch --json" + offline +
           " >{dir}/out & for i in $(seq 100); do "
           "grep -q readiness {dir}/out && break; sleep 0.1; done; kill -INT $!; wait $!; s=$?; "
           "cat {dir}/out; exit $s",
       0,
       {"{\"readiness\":\"SDK CDN is not available!\"}", "\n{\"stopping\":true}"}},
  };
  for (auto c : cases) {
    testing::TempDir dir;
    replaceAll(c.line, "{dir}", dir.path().string());
    replaceAll(c.line, "{cli}", PACTIVO_CLI);
    replaceAll(c.line, "{data}", PACTIVO_TEST_DATA_DIR "/cli/");
    replaceAll(c.line, "{cdn}", server.baseUrl());
    auto [status, output] = shell(c.line);
    SCOPED_TRACE(c.line + "\n" + output);
    EXPECT_EQ(status, c.status);
    for (const std::string& fragment : c.output)
      EXPECT_NE(output.find(fragment), std::string::npos) << fragment;
  }
}

}  // namespace
}  // namespace pactivo
