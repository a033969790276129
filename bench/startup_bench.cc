// Start-up as a television host sees it, against nginx on 127.0.0.1 and in
// whole processes, for a 30 KB and a 2.5 MB configuration document. One run
// reports four ratios, each of two figures taken side by side:
//
//   cold    setup() to `available` on a fresh data directory (fetch, decode,
//           save, read back, apply) / libcurl fetching the same document
//   memory  resident memory after `available` minus before setup() / the
//           document's size
//   decode  the library's decoding speed / simdjson's own parse of the bytes
//   warm    setup() to `available` with a fresh cache / reading and decoding
//           the cache file once
//
// Every measurement runs in a process of its own (this program started again
// with "child ..."), so no allocator, page or parser state carries over. The
// runs are interleaved and each ratio is the median of the per-run ratios.
//
//   startup_bench [--runs N]                 (default 10)
//   startup_bench --save-documents DIR       writes small.json and large.json
//   startup_bench child decode|read FILE     one measurement, for a profiler
#include <curl/curl.h>
#include <fcntl.h>
#include <rapidjson/document.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <simdjson.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "document_generator.h"
#include "models/json_text.h"
#include "pactivo/consent_sdk.h"
#include "pactivo/json.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

using Clock = std::chrono::steady_clock;
using Results = std::map<std::string, double>;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// CPU time of the calling thread: on a machine shared with other work, the
// wall clock of a CPU-bound step measures the neighbours too.
double threadCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Resident and peak resident bytes of this process.
double residentBytes() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}
double peakResidentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) * 1024;
  }
  return 0;
}

// The process's CPU time (all threads, user and system) and page faults.
struct Usage {
  double cpuSeconds = 0;
  double faults = 0;
};
Usage usage() {
  rusage now{};
  getrusage(RUSAGE_SELF, &now);
  auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return {seconds(now.ru_utime) + seconds(now.ru_stime), static_cast<double>(now.ru_minflt)};
}
void recordUsage(const Usage& before, Results& out) {
  const Usage after = usage();
  out["cpu"] = after.cpuSeconds - before.cpuSeconds;
  out["faults"] = after.faults - before.faults;
}

// The whole file read at once, with room for the decoder to read ahead (as
// the library reads its cache).
std::string readFile(const std::string& path) {
  std::string text;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info {};
  if (fd < 0 || fstat(fd, &info) != 0) return text;
  text.reserve(static_cast<std::size_t>(info.st_size) + detail::kJsonReadAhead);
  text.resize(static_cast<std::size_t>(info.st_size));
  std::size_t done = 0;
  for (ssize_t n;
       done < text.size() && (n = read(fd, text.data() + done, text.size() - done)) > 0;) {
    done += static_cast<std::size_t>(n);
  }
  close(fd);
  text.resize(done);
  return text;
}

// As the content server publishes it: indented by two spaces.
std::string published(const MainConfiguration& config) {
  rapidjson::Document parsed;
  parsed.Parse(encode(config).c_str());
  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
  writer.SetIndent(' ', 2);
  parsed.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

// ---- The measurements, each in its own process ----

size_t appendBody(char* data, size_t size, size_t count, void* body) {
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}

// A plain libcurl fetch into memory; curl_global_init is not timed, as the
// library's happens when the facade is made, before setup().
int fetchWithCurl(const std::string& url, Results& out) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const double before = residentBytes();
  const Usage used = usage();
  const auto start = Clock::now();
  CURL* curl = curl_easy_init();
  std::string body;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  long status = 0;
  const bool ok = curl_easy_perform(curl) == CURLE_OK &&
                  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK &&
                  status == 200;
  curl_easy_cleanup(curl);
  out["seconds"] = secondsSince(start);
  recordUsage(used, out);
  out["rss"] = residentBytes() - before;
  out["bytes"] = static_cast<double>(body.size());
  return ok ? 0 : 1;
}

// setup() to `available` in a host whose data directory is $XDG_DATA_HOME.
int setUp(const std::string& cdnUrl, const std::string& tenant, Results& out) {
  SDKLogger::shared().setSink([](std::string_view) {});
  ConsentSDKOptions options("http://127.0.0.1:9/", cdnUrl, tenant, "a", false, LogLevel::error,
                            1800, std::nullopt, "en", std::nullopt,
                            WebViewConfig({}, std::nullopt));
  ConsentSDK sdk;
  std::mutex mutex;
  std::condition_variable settled;
  std::optional<SDKStatus> outcome;
  Clock::time_point end;
  bool first = true;
  sdk.isReady([&](SDKStatus status) {
    if (std::exchange(first, false) || status == SDKStatus::fetching) return;
    std::lock_guard lock(mutex);
    end = Clock::now();
    outcome = status;
    settled.notify_all();
  });
  const double before = residentBytes();
  const Usage used = usage();
  const auto start = Clock::now();
  sdk.setup(options);
  std::unique_lock lock(mutex);
  settled.wait(lock, [&] { return outcome.has_value(); });
  recordUsage(used, out);
  out["rss"] = residentBytes() - before;
  out["seconds"] = std::chrono::duration<double>(end - start).count();
  out["peak"] = peakResidentBytes() - before;
  std::fflush(stdout);
  // Teardown is not start-up; every write that matters is committed.
  return *outcome == SDKStatus::available ? 0 : 1;
}

// What any reader of the cache must do at least: read the file, decode it
// (in place, as the library does).
int readAndDecode(const std::string& file, Results& out) {
  const Usage used = usage();
  const auto start = Clock::now();
  std::string text = readFile(file);
  auto decoded = detail::decodeText<MainConfiguration>(text);
  out["seconds"] = secondsSince(start);
  recordUsage(used, out);
  out["bytes"] = static_cast<double>(text.size());
  return decoded.ok() ? 0 : 1;
}

std::string loadAverage() {
  std::string text;
  std::getline(std::ifstream("/proc/loadavg"), text);
  return text.substr(0, text.find(' ', text.find(' ', text.find(' ') + 1) + 1));
}

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// simdjson's parse (its parser reused, as simdjson is meant to be used)
// against the library's decoding of the same bytes, alternated, in CPU
// time; freeing the decoded document is not timed.
int decodeSpeed(const std::string& file, Results& out) {
  const std::string json = readFile(file);     // decoded in place, as fetched bodies are
  const simdjson::padded_string padded(json);  // no copy inside the timed parse
  simdjson::dom::parser parser;
  std::vector<double> parses, decodes;
  for (int i = 0; i < 30; ++i) {
    double start = threadCpuSeconds();
    simdjson::dom::element root;
    if (parser.parse(padded).get(root)) return 1;
    parses.push_back(threadCpuSeconds() - start);
    start = threadCpuSeconds();
    auto decoded = detail::decodeText<MainConfiguration>(json);
    decodes.push_back(threadCpuSeconds() - start);
    if (!decoded.ok()) return 1;
  }
  out["parse"] = median(parses);
  out["decode"] = median(decodes);
  return 0;
}

int runChild(const std::vector<std::string>& args) {
  Results out;
  int code = 2;
  const std::string& mode = args.at(0);
  if (mode == "curl") code = fetchWithCurl(args.at(1), out);
  if (mode == "setup") code = setUp(args.at(1), args.at(2), out);
  if (mode == "read") code = readAndDecode(args.at(1), out);
  if (mode == "decode") code = decodeSpeed(args.at(1), out);
  for (const auto& [key, value] : out) std::printf("%s %.9g\n", key.c_str(), value);
  std::fflush(stdout);
  _exit(code);
}

// ---- The parent: documents, server, runs, table ----

// Runs this program with `args` (and XDG_DATA_HOME=`dataHome` when given);
// what it printed, or nothing when it failed.
std::optional<Results> inChild(const std::vector<std::string>& args,
                               const std::string& dataHome = "") {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return std::nullopt;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(pipeFds[1], STDOUT_FILENO);
    close(pipeFds[0]);
    close(pipeFds[1]);
    if (!dataHome.empty()) setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
    std::vector<std::string> words{"startup_bench", "child"};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    execv("/proc/self/exe", argv.data());
    _exit(127);
  }
  close(pipeFds[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) > 0;) text.append(buffer, n);
  close(pipeFds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  Results results;
  std::istringstream lines(text);
  std::string key;
  double value;
  while (lines >> key >> value) results[key] = value;
  return results;
}

struct Document {
  Document(const char* label, std::string tenant, std::string text)
      : label(label), tenant(std::move(tenant)), text(std::move(text)) {}
  const char* label;
  std::string tenant;
  std::string text;
  // Each figure and each ratio, one entry per run.
  std::map<std::string, std::vector<double>> runs;
  double cacheBytes = 0;
  double median(const std::string& key) const { return pactivo::median(runs.at(key)); }
};

std::vector<Document> makeDocuments() {
  std::vector<Document> documents;
  documents.emplace_back("30 KB", "small", published(bench::generateConfiguration(1, 0, 4)));
  documents.emplace_back("2.5 MB", "large",
                         published(bench::generateConfiguration(560, 0, 4, 96 * 1024)));
  return documents;
}

// The documents as files, for a profiler run of one child by hand.
int saveDocuments(const std::filesystem::path& directory) {
  for (const Document& document : makeDocuments()) {
    std::ofstream(directory / (document.tenant + ".json"), std::ios::binary) << document.text;
  }
  return 0;
}

int runParent(int runs) {
  std::vector<Document> documents = makeDocuments();
  testing::TempDir www;
  for (const Document& document : documents) {
    const auto folder = www.path() / "consent/mobile_banner" / document.tenant / "a/live";
    std::filesystem::create_directories(folder);
    std::ofstream(folder / "config_en.json", std::ios::binary) << document.text;
  }
  testing::Nginx nginx(www.path());
  if (!testing::eventually([&] { return testing::loopback(nginx.port, false) == nginx.port; })) {
    std::fprintf(stderr, "nginx did not start (is it installed?)\n");
    return 1;
  }
  const std::string cdnUrl = "http://127.0.0.1:" + std::to_string(nginx.port) + "/";

  for (int run = 0; run < runs; ++run) {
    for (Document& d : documents) {
      testing::TempDir home;
      const std::string url =
          cdnUrl + "consent/mobile_banner/" + d.tenant + "/a/live/config_en.json";
      const auto cacheFile = home.path() / "startup_bench" / "tessarin-sdk-cdn.json";
      auto curl = inChild({"curl", url});
      auto cold = inChild({"setup", cdnUrl, d.tenant}, home.path().string());
      auto warm = inChild({"setup", cdnUrl, d.tenant}, home.path().string());
      auto read = inChild({"read", cacheFile.string()});
      if (!curl || !cold || !warm || !read) {
        std::fprintf(stderr, "run %d, %s: failed:%s%s%s%s\n", run, d.label, curl ? "" : " curl",
                     cold ? "" : " cold", warm ? "" : " warm", read ? "" : " read");
        return 1;
      }
      const double size = static_cast<double>(d.text.size());
      auto keep = [&](const std::string& key, double value) { d.runs[key].push_back(value); };
      keep("curl", (*curl)["seconds"]);
      keep("curl cpu", (*curl)["cpu"]);
      keep("cold", (*cold)["seconds"]);
      keep("cold cpu", (*cold)["cpu"]);
      keep("cold faults", (*cold)["faults"]);
      keep("cold ratio", (*cold)["seconds"] / (*curl)["seconds"]);
      keep("cold cpu ratio", (*cold)["cpu"] / (*curl)["cpu"]);
      keep("rss", (*cold)["rss"]);
      keep("peak", (*cold)["peak"]);
      keep("rss ratio", (*cold)["rss"] / size);
      keep("read", (*read)["seconds"]);
      keep("read cpu", (*read)["cpu"]);
      keep("warm", (*warm)["seconds"]);
      keep("warm cpu", (*warm)["cpu"]);
      keep("warm ratio", (*warm)["seconds"] / (*read)["seconds"]);
      keep("warm cpu ratio", (*warm)["cpu"] / (*read)["cpu"]);
      d.cacheBytes = (*read)["bytes"];
      // The served bytes are what a fetch decodes.
      std::ofstream(home.path() / "served.json", std::ios::binary) << d.text;
      auto speed = inChild({"decode", (home.path() / "served.json").string()});
      if (!speed) return 1;
      keep("parse", (*speed)["parse"]);
      keep("decode", (*speed)["decode"]);
      keep("share", (*speed)["parse"] / (*speed)["decode"]);
    }
  }

  auto ms = [](double seconds) { return seconds * 1000; };
  std::printf("startup_bench: medians of %d runs; nginx on 127.0.0.1; load average %s\n", runs,
              loadAverage().c_str());
  for (const Document& d : documents) {
    std::printf("\n%s document: %zu bytes served, %.0f bytes cached\n", d.label, d.text.size(),
                d.cacheBytes);
    std::printf("  %-26s %12s %12s %8s  %s\n", "", "reference", "library", "ratio", "target");
    std::printf("  %-26s %9.2f ms %9.2f ms %8.2f  <= 2\n", "cold start (wall)",
                ms(d.median("curl")), ms(d.median("cold")), d.median("cold ratio"));
    std::printf("  %-26s %9.2f ms %9.2f ms %8.2f\n", "cold start (CPU)", ms(d.median("curl cpu")),
                ms(d.median("cold cpu")), d.median("cold cpu ratio"));
    std::printf("  %-26s %9.2f MB %9.2f MB %8.2f  <= 3 (peak %.2f MB, %.0f page faults)\n",
                "memory after available", static_cast<double>(d.text.size()) / 1e6,
                d.median("rss") / 1e6, d.median("rss ratio"), d.median("peak") / 1e6,
                d.median("cold faults"));
    std::printf("  %-26s %9.3f ms %9.3f ms %7.0f%%  >= 40%%\n", "decode (CPU), share",
                ms(d.median("parse")), ms(d.median("decode")), 100 * d.median("share"));
    std::printf("  %-26s %9.2f ms %9.2f ms %8.2f  <= 1.5\n", "warm start (wall)",
                ms(d.median("read")), ms(d.median("warm")), d.median("warm ratio"));
    std::printf("  %-26s %9.2f ms %9.2f ms %8.2f\n", "warm start (CPU)", ms(d.median("read cpu")),
                ms(d.median("warm cpu")), d.median("warm cpu ratio"));
  }
  std::printf(
      "\nreferences: cold = libcurl fetching the document; memory = the document's size;\n"
      "decode = simdjson's parse of the same bytes; warm = reading and decoding the cache file.\n");
  return 0;
}

}  // namespace
}  // namespace pactivo

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (!args.empty() && args[0] == "child") {
    return pactivo::runChild(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (args.size() == 2 && args[0] == "--save-documents") return pactivo::saveDocuments(args[1]);
  int runs = 10;
  if (args.size() == 2 && args[0] == "--runs") runs = std::max(1, std::atoi(args[1].c_str()));
  return pactivo::runParent(runs);
}
