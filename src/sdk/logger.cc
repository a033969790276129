#include "pactivo/logger.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>

#include "pactivo/platform.h"
#include "pactivo/user_default_manager.h"

namespace pactivo {
namespace {

// "yyyy-MM-dd HH:mm:ss.SSS" in local time.
std::string localTimestamp() {
  auto now = std::chrono::system_clock::now();
  std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(text + length, sizeof text - length, ".%03d", static_cast<int>(millis.count()));
  return text;
}

std::string_view lastPathComponent(std::string_view path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

void writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return;  // nowhere left to report a failing log
    }
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

SDKLogger& SDKLogger::shared() {
  // Never destroyed: threads may log during static destruction.
  static auto* instance = new SDKLogger;
  return *instance;
}

void SDKLogger::setSink(Sink sink) {
  auto shared = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
  std::lock_guard lock(sinkMutex_);
  sink_ = std::move(shared);
}

void SDKLogger::emit(std::string_view text) {
  std::shared_ptr<const Sink> sink;
  {
    std::lock_guard lock(sinkMutex_);
    sink = sink_;
  }
  if (sink) {
    (*sink)(text);
  } else {
    writeAll(STDOUT_FILENO, text);
  }
}

void SDKLogger::log(std::string_view message, LogLevel level, std::string_view functionName,
                    SourceLocation location) {
  const LogLevel threshold = logLevel();
  if (level < threshold) return;

  const bool verbose = threshold == LogLevel::debug;
  const std::int64_t configurationVersion = UserDefaultManager::getInt(keys::kSdkVersion);

  std::string text;
  text.reserve(128 + message.size());
  if (verbose) {
    auto platform = currentPlatform();
    if (auto version = platform->libraryVersion()) emit("SDK Version: " + *version + "\n");
    if (UserDefaultManager::getBool(keys::kIsAttEnabled)) {
      std::string adId = platform->advertisingIdentifier();
      if (!adId.empty()) emit("ATT AD ID: " + adId + "\n");
    }
    // Read, never created here: a log line must not write to the store (a
    // debug line after removeAllConsents() would bring back the identity
    // just removed). Uploads create it through getSubjectId().
    text += "Subject Identity: ";
    text += UserDefaultManager::getString(keys::kSubjectId, "");
    text += '\n';
  }
  text += "Configuration Version: ";
  text += std::to_string(configurationVersion);
  text += '\n';
  text += localTimestamp();
  text += " [";
  text += rawValue(level);
  text += ']';
  if (verbose) {
    text += " [";
    text += lastPathComponent(location.file_name());
    text += ':';
    text += std::to_string(location.line());
    text += "] ";
    text += functionName;
    text += " - ";
  }
  text += message;
  text += '\n';
  emit(text);
}

}  // namespace pactivo
