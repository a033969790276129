// The configuration file cache: where the document lives on disk, how it is
// saved with a backup, and how getCDNFile() chooses between cache and fetch.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "models/json_text.h"
#include "pactivo/locale_utils.h"
#include "pactivo/logger.h"
#include "pactivo/platform.h"
#include "pactivo/user_default_manager.h"
#include "persistence/preference_writer.h"
#include "platform/time.h"
#include "sdk/consent_sdk_impl.h"

namespace pactivo {
namespace {

constexpr const char* kCdnFileName = "tessarin-sdk-cdn.json";
constexpr const char* kCdnBackupFileName = "tessarin-sdk-cdn-backup.json";
// A cached document younger than this many seconds is used without asking.
constexpr std::int64_t kFreshnessLimitSeconds = 3601;
constexpr std::int64_t kDefaultDocumentVersion = 1;
constexpr std::string_view kSaveFunction = "saveCDNToFile(config:fileName:)";

}  // namespace

std::string ConsentSDK::Impl::fileUrl(const std::filesystem::path& path) {
  // Percent-encoded, so that a directory with a space, "%" or "#" still
  // reads back as the same path.
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string url = "file://";
  for (unsigned char c : path.string()) {
    if (std::isalnum(c) || std::strchr("/-._~", c) != nullptr) {
      url += static_cast<char>(c);
    } else {
      url += '%';
      url += kHex[c >> 4];
      url += kHex[c & 15];
    }
  }
  return url;
}

namespace {

void log(const std::string& message, LogLevel level, std::string_view function,
         SourceLocation location = SourceLocation::current()) {
  SDKLogger::shared().log(message, level, function, location);
}

// The whole file, or the reason it could not be read.
bool readWholeFile(const std::filesystem::path& path, std::string* contents, std::string* error,
                   struct stat* identity) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = std::strerror(errno);
    return false;
  }
  bool ok = ::fstat(fd, identity) == 0;
  if (ok) {
    // Room for the decoder to read ahead, so it decodes the text in place.
    contents->reserve(static_cast<std::size_t>(identity->st_size) + detail::kJsonReadAhead);
    contents->resize(static_cast<std::size_t>(identity->st_size));
    std::size_t done = 0;
    while (ok && done < contents->size()) {
      ssize_t n = ::read(fd, contents->data() + done, contents->size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        ok = false;
      } else {
        done += static_cast<std::size_t>(n);
      }
    }
    contents->resize(done);
  }
  if (!ok) *error = std::strerror(errno != 0 ? errno : EIO);
  ::close(fd);
  return ok;
}

// Writes the encoding of `config` to `path` as it is made, and syncs it to
// the disk. The text is never held whole: it is as large as the document's
// bytes from the server.
bool writeDurably(const std::filesystem::path& path, const MainConfiguration& config,
                  std::string* error) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    *error = std::strerror(errno);
    return false;
  }
  const bool written = detail::encodeInPieces(config, [&](std::string_view bytes) {
    while (!bytes.empty()) {
      ssize_t n = ::write(fd, bytes.data(), bytes.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        *error = std::strerror(n < 0 ? errno : EIO);
        return false;
      }
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
  });
  if (!written) {
    ::close(fd);
    return false;
  }
  if (::fsync(fd) != 0 || ::close(fd) != 0) {
    *error = std::strerror(errno);
    return false;
  }
  return true;
}

// Gives the memory that reading a document left free back to the system.
// glibc keeps what a thread frees in that thread's arena, every task runs on
// a new thread, and a new thread does not always take over the arena an
// earlier one filled: each fetch of a 2.5 MB document left 4 to 10 MB more
// resident than the one before.
void releaseFreedMemory() {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}

// Makes the renames in `directory` survive a power cut.
void syncDirectory(const std::filesystem::path& directory) {
  int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

void ConsentSDK::Impl::removeCDNFile(const std::filesystem::path& file) {
  std::error_code ec;
  if (!std::filesystem::exists(file, ec)) return;
  if (std::filesystem::remove(file, ec)) {
    log("Existing file removed: " + fileUrl(file), LogLevel::info, "removeCDNFile(_:_:)");
  } else {
    // Logged at info like the success: a stale file is harmless.
    log("Error removing existing file: " + ec.message(), LogLevel::info, "removeCDNFile(_:_:)");
  }
}

void ConsentSDK::Impl::discardDamagedCache() {
  std::filesystem::path directory = currentPlatform()->applicationSupportDirectory();
  const std::filesystem::path file = directory / kCdnFileName;
  std::error_code ec;
  if (!directory.empty() && std::filesystem::exists(file, ec)) {
    readCDNFile(false);  // logs why it is unusable
    removeCDNFile(file);
  }
  // Sent with the fetch, the server would answer 304 and keep a document
  // that is no longer here.
  if (UserDefaultManager::getETag()) UserDefaultManager::clearETag();
}

void ConsentSDK::Impl::discardCachedConfiguration() {
  std::filesystem::path directory = currentPlatform()->applicationSupportDirectory();
  if (!directory.empty()) removeCDNFile(directory / kCdnFileName);
  UserDefaultManager::clearETag();
}

std::shared_ptr<const MainConfiguration> ConsentSDK::Impl::readCDNFile(bool isCache) {
  std::filesystem::path directory = currentPlatform()->applicationSupportDirectory();
  if (directory.empty()) return nullptr;
  const std::filesystem::path file = directory / kCdnFileName;
  const std::filesystem::path backup = directory / kCdnBackupFileName;
  std::string error;
  bool restored = false;
  {
    std::lock_guard lock(cacheMutex_);
    struct stat info {};
    if (::stat(file.c_str(), &info) == 0 && cachedDocument_ &&
        cachedIdentity_ == FileIdentity{info.st_dev, info.st_ino, info.st_size, info.st_mtim}) {
      return cachedDocument_;
    }
    auto decodeFile = [&](const std::filesystem::path& path) {
      bool ok = false;
      {
        std::string contents;
        if (!readWholeFile(path, &contents, &error, &info)) return false;
        auto decoded = detail::decodeText<MainConfiguration>(contents);
        if (decoded.ok()) {
          cachedDocument_ = std::make_shared<const MainConfiguration>(std::move(*decoded.value));
          cachedIdentity_ = FileIdentity{info.st_dev, info.st_ino, info.st_size, info.st_mtim};
          ok = true;
        } else {
          error = decoded.error;
        }
      }
      memoryToRelease_ = true;
      return ok;
    };
    if (decodeFile(file)) return cachedDocument_;
    // A save cut short between its two renames leaves only the backup.
    std::string fileError = error;
    std::error_code ec;
    if (std::filesystem::exists(backup, ec) && decodeFile(backup)) {
      std::filesystem::rename(backup, file, ec);
      if (!ec && ::stat(file.c_str(), &info) == 0) {
        cachedIdentity_ = FileIdentity{info.st_dev, info.st_ino, info.st_size, info.st_mtim};
      }
      restored = true;
    }
    error = fileError;
  }
  if (restored) {
    log("Backup restored to original: " + fileUrl(file), LogLevel::info, "readCDNFile(isCache:)");
    return cachedDocument_;
  }
  if (!isCache) {
    log("Error reading or decoding CDN: " + error, LogLevel::error, "readCDNFile(isCache:)");
  }
  return nullptr;
}

std::optional<std::filesystem::path> ConsentSDK::Impl::saveCDNToFile(MainConfiguration config,
                                                                     const std::string& fileName) {
  constexpr std::string_view kFunction = kSaveFunction;
  const std::filesystem::path directory = currentPlatform()->applicationSupportDirectory();
  if (directory.empty()) return std::nullopt;
  std::lock_guard lock(cacheMutex_);
  std::error_code ec;
  if (!std::filesystem::exists(directory, ec)) {
    std::filesystem::create_directories(directory, ec);
    if (ec) {
      log("Error creating Application Support directory for Tessarin Consent SDK: " + ec.message(),
          LogLevel::error, kFunction);
      return std::nullopt;
    }
  }
  const std::filesystem::path target = directory / fileName;
  const std::filesystem::path backup = directory / kCdnBackupFileName;
  const std::filesystem::path temporary = directory / (fileName + ".tmp");
  // Written whole and synced beside the target, then renamed over it: a
  // kill or a power cut at any instant leaves the old document or the new
  // one, never part of one.
  std::string error;
  if (!writeDurably(temporary, config, &error)) {
    log("Error saving CDN: " + error, LogLevel::error, kFunction);
    std::filesystem::remove(temporary, ec);
    return std::nullopt;
  }
  if (std::filesystem::exists(target, ec)) {
    std::filesystem::rename(target, backup, ec);
    if (ec) {
      log("Error creating backup: " + ec.message(), LogLevel::error, kFunction);
      std::filesystem::remove(temporary, ec);
      return std::nullopt;
    }
    log("Backup created: " + fileUrl(backup), LogLevel::info, kFunction);
  }
  std::filesystem::rename(temporary, target, ec);
  if (ec) {
    log("Error saving CDN: " + ec.message(), LogLevel::error, kFunction);
    std::filesystem::remove(temporary, ec);
    if (std::filesystem::exists(backup, ec)) {
      std::filesystem::rename(backup, target, ec);
      if (ec) {
        log("Error restoring backup: " + ec.message(), LogLevel::error, kFunction);
      } else {
        log("Backup restored to original: " + fileUrl(target), LogLevel::debug, kFunction);
      }
    }
    return std::nullopt;
  }
  // The renames reach the disk before the bookkeeping that describes them
  // (time, ETag) is committed: after a power cut that bookkeeping never
  // stands beside an older file.
  syncDirectory(directory);
  // What was written decodes to `config` again, so the next read of this
  // file needs no parse, and the document is kept once, not copied.
  struct stat info {};
  if (::stat(target.c_str(), &info) == 0) {
    cachedDocument_ = std::make_shared<const MainConfiguration>(std::move(config));
    cachedIdentity_ = FileIdentity{info.st_dev, info.st_ino, info.st_size, info.st_mtim};
  }
  if (std::filesystem::exists(backup, ec)) removeCDNFile(backup);
  return target;
}

void ConsentSDK::Impl::recordSave(detail::PreferenceWriter& writer,
                                  const std::filesystem::path& target) {
  writer.setString(keys::kCdnFileLocation, fileUrl(target));
  writer.setInt64(keys::kCdnCachedTimestamp, detail::currentTimeSeconds());
  writer.setString(keys::kLanguageCode, LocaleUtils::currentLanguageCode());
}

std::shared_ptr<const MainConfiguration> ConsentSDK::Impl::getCDNFile() {
  constexpr std::string_view kFunction = "getCDNFile()";
  if (!usable()) {
    sdkListener->setIsReady(SDKStatus::unavailable);
    return nullptr;
  }
  std::shared_ptr<const MainConfiguration> result = readCDNFile(true);
  const std::int64_t now = detail::currentTimeSeconds();
  const std::int64_t stamp = UserDefaultManager::getInt64(keys::kCdnCachedTimestamp, now);
  const std::optional<ConsentSDKOptions> options = this->options();

  if (!result) discardDamagedCache();
  bool fetch = false;
  if (options) {
    // A cached document without any stored timestamp counts as fresh; one
    // stamped in the future (the clock was corrected backwards) as stale.
    fetch = !result || stamp == 0 || now - stamp >= kFreshnessLimitSeconds || stamp > now;
  }
  // What a fetch leaves to record, in the commit that applies the result.
  std::optional<std::string> etag;
  std::optional<std::filesystem::path> saved;
  if (fetch) {
    sdkListener->setIsReady(SDKStatus::fetching);
    try {
      saved = saveCDNToFile(getCDN(*options, &etag), kCdnFileName);
      result = readCDNFile(false);
    } catch (const NetworkError& error) {
      if (error.kind() == NetworkError::Kind::cdnNotModified) {
        log("CDN Configuration is up to date", LogLevel::info, kFunction);
      } else {
        log("Failed to fetch CDN File: " + error.description(), LogLevel::error, kFunction);
      }
    } catch (const std::exception& error) {
      log(std::string("Failed to fetch CDN File: ") + error.what(), LogLevel::error, kFunction);
    }
    memoryToRelease_ = true;
  }
  // One commit, so one sync, for the reply's ETag, the save's bookkeeping
  // and the applied values; none when nothing changes.
  applyConfiguration(result, [&](detail::PreferenceWriter& writer) {
    if (etag) writer.setString(keys::kEtag, *etag);
    if (saved) recordSave(writer, *saved);
  });
  if (saved) log("CDN saved at: " + fileUrl(*saved), LogLevel::debug, kSaveFunction);
  sdkListener->setIsReady(result ? SDKStatus::available : SDKStatus::unavailable);
  // After readiness: nobody waits for it. The text, the parser and any
  // replaced document are gone by now.
  if (memoryToRelease_.exchange(false)) releaseFreedMemory();
  return result;
}

void ConsentSDK::Impl::applyConfiguration(
    const std::shared_ptr<const MainConfiguration>& document,
    const std::function<void(detail::PreferenceWriter&)>& alsoRecord) {
  bool reConsent = false;
  // The values repeat on every apply, and a write that changes nothing
  // costs nothing.
  detail::updatePreferences("configuration", [&](detail::PreferenceWriter& writer) {
    alsoRecord(writer);
    if (!document) return true;
    const MainConfiguration& config = *document;
    writer.setString(keys::kXAuthToken, config.token.value_or(""));
    writer.setBool(keys::kIsSettingsPromptEnabled, config.isSettingsPromptEnabled.value_or(false));
    writer.setBool(keys::kIsAttEnabled, config.isATTEnabled.value_or(false));
    const std::int64_t current = config.version.value_or(kDefaultDocumentVersion);
    std::int64_t stored = writer.getInt64(keys::kSdkVersion, 0);
    if (stored == 0) stored = current;  // a first apply is never a new version
    reConsent = stored < current && config.reConsentEnabled.value_or(false);
    if (reConsent) writer.setString(keys::kConsentGivenType, kConsentNoAction);
    writer.setInt64(keys::kSdkVersion, current);
    return true;
  });
  if (!document) return;

  if (UserDefaultManager::getString(keys::kConsentGivenType, kConsentNoAction) ==
      kConsentNoAction) {
    startTask(TaskSlot::prefillDefaultValuesTask,
              [this, document, reConsent] { prefillDefaultValues(document, reConsent); });
  }
}

}  // namespace pactivo
