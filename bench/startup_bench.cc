// Start-up as a television host sees it, against nginx on 127.0.0.1 and in
// whole processes, for a 30 KB and a 2.5 MB configuration document (the
// large one 560 purposes of three SDKs each, texts in four languages and a
// 96 KB base64 logo, indented as the content server publishes it). One run
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
// The machine is shared, so wall times carry the neighbours' load: CPU times
// are reported beside them, and the load average heads the table. When the
// examples are built, whole programs are timed too (examples/minimal_host
// against the curl command), wall time and peak memory from start to exit.
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
#include <sys/time.h>
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
#include "pactivo/user_default_manager.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

using Clock = std::chrono::steady_clock;
using Results = std::map<std::string, double>;

// As examples/minimal_host asks for its document.
constexpr const char* kTenant = "demo-tenant";
constexpr const char* kApplication = "demo-app";
constexpr const char* kDocumentPath =
    "consent/mobile_banner/demo-tenant/demo-app/live/config_en.json";

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
// With `refetches`, the document is then fetched again that many times, as
// the hourly check does once the cache is stale, and "growth" is how much
// more is resident after the last than after `available`.
int setUp(const std::string& cdnUrl, Results& out, int refetches = 0) {
  SDKLogger::shared().setSink([](std::string_view) {});
  ConsentSDKOptions options("http://127.0.0.1:9/", cdnUrl, kTenant, kApplication, false,
                            LogLevel::error, 1800, std::nullopt, "en", std::nullopt,
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
  lock.unlock();
  const double available = residentBytes();
  for (int i = 0; i < refetches; ++i) {
    UserDefaultManager::setInt64(keys::kCdnCachedTimestamp, 0);  // stale: fetch
    UserDefaultManager::clearETag();                             // a whole reply, not a 304
    sdk.checkConsents();
  }
  if (refetches > 0) out["growth"] = residentBytes() - available;
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
  if (mode == "setup") code = setUp(args.at(1), out);
  if (mode == "refetch") code = setUp(args.at(1), out, 4);
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

// A whole program run: wall time from start to exit, and peak resident
// memory.
struct Run {
  double seconds = 0;
  double peakBytes = 0;
};
std::optional<Run> runProgram(const std::vector<std::string>& argv, const std::string& dataHome) {
  const auto start = Clock::now();
  pid_t pid = fork();
  if (pid == 0) {
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, STDOUT_FILENO);
    dup2(devnull, STDERR_FILENO);
    if (!dataHome.empty()) setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
    std::vector<std::string> words = argv;
    std::vector<char*> args;
    for (auto& word : words) args.push_back(word.data());
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  rusage used{};
  wait4(pid, &status, 0, &used);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return Run{secondsSince(start), static_cast<double>(used.ru_maxrss) * 1024};
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
  // Each document under a folder of its own, which is part of its content
  // server URL.
  testing::TempDir www;
  for (const Document& document : documents) {
    const auto file = www.path() / document.tenant / kDocumentPath;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << document.text;
  }
  testing::Nginx nginx(www.path());
  if (testing::loopback(nginx.port, false) != nginx.port) {
    std::fprintf(stderr, "nginx did not start (is it installed?)\n");
    return 1;
  }
  const std::string server = "http://127.0.0.1:" + std::to_string(nginx.port) + "/";

  for (int run = 0; run < runs; ++run) {
    for (Document& d : documents) {
      testing::TempDir home;
      const std::string cdnUrl = server + d.tenant + "/";
      const std::string url = cdnUrl + kDocumentPath;
      const auto cacheFile = home.path() / "startup_bench" / "tessarin-sdk-cdn.json";
      auto curl = inChild({"curl", url});
      auto cold = inChild({"setup", cdnUrl}, home.path().string());
      auto warm = inChild({"setup", cdnUrl}, home.path().string());
      auto read = inChild({"read", cacheFile.string()});
      testing::TempDir refetchHome;
      auto refetch = inChild({"refetch", cdnUrl}, refetchHome.path().string());
      if (!curl || !cold || !warm || !read || !refetch) {
        std::fprintf(stderr, "run %d, %s: failed:%s%s%s%s%s\n", run, d.label, curl ? "" : " curl",
                     cold ? "" : " cold", warm ? "" : " warm", read ? "" : " read",
                     refetch ? "" : " refetch");
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
      keep("refetch growth", (*refetch)["growth"]);
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
#ifdef PACTIVO_MINIMAL_HOST
      // Whole programs: a host that sets up and exits once available, and
      // one with no server to reach, against the curl command.
      testing::TempDir hostHome;
      auto curlProgram =
          runProgram({"/usr/bin/curl", "-s", "-o", (home.path() / "fetched").string(), url}, "");
      auto hostCold = runProgram({PACTIVO_MINIMAL_HOST, cdnUrl, cdnUrl}, hostHome.path().string());
      auto hostWarm = runProgram({PACTIVO_MINIMAL_HOST, cdnUrl, cdnUrl}, hostHome.path().string());
      testing::TempDir offline;
      auto hostOffline =
          runProgram({PACTIVO_MINIMAL_HOST, "http://127.0.0.1:9/"}, offline.path().string());
      if (!curlProgram || !hostCold || !hostWarm || !hostOffline) {
        std::fprintf(stderr, "run %d, %s: a whole program failed\n", run, d.label);
        return 1;
      }
      keep("curl program", curlProgram->seconds);
      keep("curl program peak", curlProgram->peakBytes);
      keep("host cold", hostCold->seconds);
      keep("host cold peak", hostCold->peakBytes);
      keep("host warm", hostWarm->seconds);
      keep("host warm peak", hostWarm->peakBytes);
      keep("host offline", hostOffline->seconds);
      keep("host offline peak", hostOffline->peakBytes);
      keep("host cold ratio", hostCold->seconds / curlProgram->seconds);
#endif
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
    std::printf("  %-26s %12s %9.2f MB\n", "growth over 4 re-fetches", "",
                d.median("refetch growth") / 1e6);
    std::printf("  %-26s %9.3f ms %9.3f ms %7.0f%%  >= 40%%\n", "decode (CPU), share",
                ms(d.median("parse")), ms(d.median("decode")), 100 * d.median("share"));
    std::printf("  %-26s %9.2f ms %9.2f ms %8.2f  <= 1.5\n", "warm start (wall)",
                ms(d.median("read")), ms(d.median("warm")), d.median("warm ratio"));
    std::printf("  %-26s %9.2f ms %9.2f ms %8.2f\n", "warm start (CPU)", ms(d.median("read cpu")),
                ms(d.median("warm cpu")), d.median("warm cpu ratio"));
    if (d.runs.count("host cold") != 0) {
      std::printf(
          "  whole programs (wall, peak RSS): curl %.1f ms %.1f MB; minimal_host cold %.1f "
          "ms %.1f MB (ratio %.2f), warm %.1f ms %.1f MB, no server %.1f ms %.1f MB\n",
          ms(d.median("curl program")), d.median("curl program peak") / 1e6,
          ms(d.median("host cold")), d.median("host cold peak") / 1e6, d.median("host cold ratio"),
          ms(d.median("host warm")), d.median("host warm peak") / 1e6, ms(d.median("host offline")),
          d.median("host offline peak") / 1e6);
    }
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
