// SDKLogger: the library's one diagnostic channel.
//
// Each printed message is one write of whole lines to standard output (or to
// the sink a host installs). At level `debug` a message reads
//
//   Subject Identity: 5A0C...
//   Configuration Version: 3
//   2025-01-31 23:59:59.123 [DEBUG] [purpose_manager.cc:42] checkPurposes() - text
//
// and at any other level
//
//   Configuration Version: 3
//   2025-01-31 23:59:59.123 [WARNING]text
//
// (no blank after the bracket: log readers rely on that form). Messages below
// the level cost one atomic load.
//
// Threading: every member may be called from any thread at any time.
#ifndef PACTIVO_LOGGER_H_
#define PACTIVO_LOGGER_H_

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "pactivo/enums.h"
#include "pactivo/export.h"

namespace pactivo {

// The caller's file and line, captured as a default argument. Equivalent to
// std::source_location, which clang 14 on libstdc++ cannot compile.
class SourceLocation {
 public:
  static constexpr SourceLocation current(const char* file = __builtin_FILE(),
                                          int line = __builtin_LINE()) noexcept {
    return SourceLocation(file, line);
  }
  constexpr const char* file_name() const noexcept { return file_; }
  constexpr int line() const noexcept { return line_; }

 private:
  constexpr SourceLocation(const char* file, int line) : file_(file), line_(line) {}
  const char* file_;
  int line_;
};

class PACTIVO_EXPORT SDKLogger {
 public:
  // Receives each printed message (one or more lines, each ending in "\n").
  using Sink = std::function<void(std::string_view text)>;

  // The process-wide logger. It lives until the process ends.
  static SDKLogger& shared();

  SDKLogger(const SDKLogger&) = delete;
  SDKLogger& operator=(const SDKLogger&) = delete;

  // The minimum level printed; `debug` until setup sets the host's level.
  LogLevel logLevel() const { return logLevel_.load(std::memory_order_relaxed); }
  void setLogLevel(LogLevel level) { logLevel_.store(level, std::memory_order_relaxed); }

  // Logs `message` from `functionName` (its signature form, e.g.
  // "getCDNFile()"); the file and line come from `location`.
  void log(std::string_view message, LogLevel level, std::string_view functionName,
           SourceLocation location = SourceLocation::current());

  // Sends printed text to `sink` instead of standard output; an empty sink
  // restores standard output. The sink is called from the logging thread
  // and must not log.
  void setSink(Sink sink);

 private:
  SDKLogger() = default;
  void emit(std::string_view text);

  std::atomic<LogLevel> logLevel_{LogLevel::debug};
  std::mutex sinkMutex_;
  std::shared_ptr<const Sink> sink_;  // guarded by sinkMutex_; null means stdout
};

}  // namespace pactivo

#endif  // PACTIVO_LOGGER_H_
