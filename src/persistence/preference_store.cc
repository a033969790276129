#include "persistence/preference_store.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <system_error>
#include <thread>
#include <utility>

#include "pactivo/logger.h"
#include "pactivo/platform.h"

namespace pactivo::detail {
namespace {

// Column `type` of the preferences table.
enum class ValueType : int { string = 0, boolean = 1, integer = 2, date = 3, array = 4 };

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS preferences ("
    "  key TEXT PRIMARY KEY NOT NULL,"
    "  type INTEGER NOT NULL,"
    "  value) WITHOUT ROWID";

constexpr const char* kUpsert =
    "INSERT INTO preferences(key, type, value) VALUES(?1, ?2, ?3) "
    "ON CONFLICT(key) DO UPDATE SET type = excluded.type, value = excluded.value";

// Lets a second process wait for a writer instead of failing with
// "database is locked".
constexpr int kBusyTimeoutMs = 5000;

bool isUnusableFile(int code) {
  int primary = code & 0xff;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

// Another process holding the file for a moment (creating it, switching it
// to WAL, recovering its WAL index) is no reason to give up.
bool isTransientLock(int code) {
  int primary = code & 0xff;
  return primary == SQLITE_BUSY || primary == SQLITE_LOCKED;
}

std::string sqliteError(sqlite3* db, int code) {
  std::string text = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(code);
  return text + " (code " + std::to_string(code) + ")";
}

void bindValue(sqlite3_stmt* stmt, const PreferenceValue& value) {
  std::visit(
      [stmt](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::string>) {
          sqlite3_bind_int(stmt, 2, static_cast<int>(ValueType::string));
          sqlite3_bind_text(stmt, 3, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
        } else if constexpr (std::is_same_v<T, bool>) {
          sqlite3_bind_int(stmt, 2, static_cast<int>(ValueType::boolean));
          sqlite3_bind_int(stmt, 3, v ? 1 : 0);
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          sqlite3_bind_int(stmt, 2, static_cast<int>(ValueType::integer));
          sqlite3_bind_int64(stmt, 3, v);
        } else if constexpr (std::is_same_v<T, std::chrono::system_clock::time_point>) {
          sqlite3_bind_int(stmt, 2, static_cast<int>(ValueType::date));
          sqlite3_bind_double(stmt, 3, std::chrono::duration<double>(v.time_since_epoch()).count());
        } else {
          std::string text = encodeArray(v);
          sqlite3_bind_int(stmt, 2, static_cast<int>(ValueType::array));
          sqlite3_bind_text(stmt, 3, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
        }
      },
      value);
}

// A row whose type column is unknown (a newer library wrote it) is skipped.
std::optional<PreferenceValue> columnValue(sqlite3_stmt* stmt) {
  auto text = [stmt] {
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 2));
    return std::string(bytes != nullptr ? bytes : "", sqlite3_column_bytes(stmt, 2));
  };
  switch (static_cast<ValueType>(sqlite3_column_int(stmt, 1))) {
    case ValueType::string:
      return text();
    case ValueType::boolean:
      return sqlite3_column_int64(stmt, 2) != 0;
    case ValueType::integer:
      return static_cast<std::int64_t>(sqlite3_column_int64(stmt, 2));
    case ValueType::date:
      return std::chrono::system_clock::time_point(
          std::chrono::duration_cast<std::chrono::system_clock::duration>(
              std::chrono::duration<double>(sqlite3_column_double(stmt, 2))));
    case ValueType::array:
      if (auto elements = decodeArray(text())) return std::move(*elements);
      return std::nullopt;
  }
  return std::nullopt;
}

std::filesystem::path movedAsideName(const std::filesystem::path& file) {
  std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
  return file.string() + ".corrupt-" + stamp;
}

void moveAside(const std::filesystem::path& file, const std::filesystem::path& target) {
  std::error_code ignored;
  std::filesystem::rename(file, target, ignored);
  // The journal files belong to the unusable database; a new suite must not
  // replay them.
  for (const char* suffix : {"-wal", "-shm", "-journal"}) {
    std::filesystem::path companion = file.string() + suffix;
    if (std::filesystem::exists(companion, ignored)) {
      std::filesystem::rename(companion, target.string() + suffix, ignored);
    }
  }
}

}  // namespace

std::string encodeArray(const std::vector<PreferenceArrayElement>& elements) {
  // Each element is "i<decimal>;" or "s<length>:<bytes>", so any byte can
  // appear in a string.
  std::string out;
  for (const auto& element : elements) {
    if (const auto* number = std::get_if<std::int64_t>(&element)) {
      out += 'i';
      out += std::to_string(*number);
      out += ';';
    } else {
      const auto& text = std::get<std::string>(element);
      out += 's';
      out += std::to_string(text.size());
      out += ':';
      out += text;
    }
  }
  return out;
}

std::optional<std::vector<PreferenceArrayElement>> decodeArray(std::string_view text) {
  std::vector<PreferenceArrayElement> elements;
  const char* p = text.data();
  const char* end = p + text.size();
  while (p < end) {
    char tag = *p++;
    if (tag == 'i') {
      std::int64_t number = 0;
      auto [next, ec] = std::from_chars(p, end, number);
      if (ec != std::errc() || next == end || *next != ';') return std::nullopt;
      elements.emplace_back(number);
      p = next + 1;
    } else if (tag == 's') {
      std::size_t length = 0;
      auto [next, ec] = std::from_chars(p, end, length);
      if (ec != std::errc() || next == end || *next != ':') return std::nullopt;
      p = next + 1;
      if (static_cast<std::size_t>(end - p) < length) return std::nullopt;
      elements.emplace_back(std::string(p, length));
      p += length;
    } else {
      return std::nullopt;
    }
  }
  return elements;
}

PreferenceStore::PreferenceStore(sqlite3* db, std::filesystem::path path)
    : db_(db), path_(std::move(path)) {}

PreferenceStore::~PreferenceStore() {
  for (sqlite3_stmt* stmt : {upsert_, delete_, selectAll_, dataVersion_}) sqlite3_finalize(stmt);
  sqlite3_close_v2(db_);
  if (walIndex_ != nullptr) munmap(const_cast<unsigned char*>(walIndex_), walIndexMapping_);
  if (walIndexFd_ >= 0) ::close(walIndexFd_);
}

int PreferenceStore::initialise(bool fresh, std::string* error) {
  struct stat opened {};
  if (::stat(path_.c_str(), &opened) == 0) {
    device_ = opened.st_dev;
    inode_ = opened.st_ino;
  }
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);
  // WAL with synchronous=FULL: a committed write survives the process being
  // killed and the power being cut (set-top boxes are switched off at the
  // wall), at the price of one sync of the log per commit.
  //
  // A fresh suite is built without syncs and then synced once (see
  // syncFreshSuite()): SQLite's own way, switching the new file to WAL
  // through a rollback journal and then creating the log, takes seven syncs
  // on the first launch. Nothing is stored yet, so a power cut meanwhile
  // loses nothing: the file then reads as empty or unusable and is built
  // again.
  std::vector<const char*> building = {"PRAGMA journal_mode=WAL", "PRAGMA synchronous=FULL",
                                       kSchema};
  if (fresh) building = {"PRAGMA synchronous=OFF", "PRAGMA journal_mode=WAL", kSchema};
  for (const char* sql : building) {
    int code = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) {
      *error = sqliteError(db_, code);
      return code;
    }
  }
  if (fresh) {
    int code = syncFreshSuite();
    if (code == SQLITE_OK)
      code = sqlite3_exec(db_, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) {
      *error = sqliteError(db_, code);
      return code;
    }
  }
  struct {
    const char* sql;
    sqlite3_stmt** stmt;
  } statements[] = {
      {kUpsert, &upsert_},
      {"DELETE FROM preferences WHERE key = ?1", &delete_},
      {"SELECT key, type, value FROM preferences", &selectAll_},
      {"PRAGMA data_version", &dataVersion_},
  };
  for (auto& s : statements) {
    int code = sqlite3_prepare_v3(db_, s.sql, -1, SQLITE_PREPARE_PERSISTENT, s.stmt, nullptr);
    if (code != SQLITE_OK) {
      *error = sqliteError(db_, code);
      return code;
    }
  }
  std::lock_guard lock(mutex_);
  knownDataVersion_ = dataVersion();
  int code = loadAll();
  if (code == SQLITE_OK) mapWalIndex();
  if (code != SQLITE_OK) *error = sqliteError(db_, code);
  return code;
}

int PreferenceStore::syncFreshSuite() {
  // The database file's first page says it is in WAL mode: were it lost, a
  // reopen would take the file for an empty database and delete the log with
  // every commit in it. Synced through SQLite's own handle (a descriptor of
  // our own, once closed, would drop SQLite's locks on the file).
  sqlite3_file* file = nullptr;
  if (sqlite3_file_control(db_, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
      file == nullptr || file->pMethods == nullptr) {
    return SQLITE_IOERR;
  }
  int code = file->pMethods->xSync(file, SQLITE_SYNC_NORMAL);
  if (code != SQLITE_OK) return code;
  // The names of the file and of its log. The log's contents reach the disk
  // with the first commit, which syncs the whole log.
  int fd = ::open(path_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return SQLITE_IOERR;
  code = ::fsync(fd) == 0 ? SQLITE_OK : SQLITE_IOERR_FSYNC;
  ::close(fd);
  return code;
}

PreferenceStore::OpenResult PreferenceStore::open(const std::filesystem::path& directory) {
  OpenResult result;
  if (directory.empty()) {
    result.error = "no application-support directory";
    return result;
  }
  std::error_code ec;
  std::filesystem::create_directories(directory, ec);
  if (ec) {
    result.error = "cannot create " + directory.string() + ": " + ec.message();
    return result;
  }
  const std::filesystem::path file = directory / kFileName;
  const auto giveUpAt =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
  bool movedAside = false;
  for (int attempt = 1;; ++attempt) {
    const bool fresh = std::filesystem::file_size(file, ec) == 0 || ec;
    sqlite3* db = nullptr;
    int code =
        sqlite3_open_v2(file.c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    std::string error;
    if (code != SQLITE_OK) {
      error = sqliteError(db, code);
      sqlite3_close_v2(db);
    } else {
      std::unique_ptr<PreferenceStore> store(new PreferenceStore(db, file));
      code = store->initialise(fresh, &error);
      if (code == SQLITE_OK) {
        result.store = std::move(store);
        return result;
      }
    }
    if (isTransientLock(code) && std::chrono::steady_clock::now() < giveUpAt) {
      // Staggered, so that processes started together do not retry in step.
      std::this_thread::sleep_for(std::chrono::milliseconds(2 + attempt % 7 + ::getpid() % 5));
      continue;
    }
    if (!isUnusableFile(code) || movedAside) {
      result.error = error;
      return result;
    }
    movedAside = true;
    result.movedAsidePath = movedAsideName(file);
    moveAside(file, result.movedAsidePath);
  }
}

int64_t PreferenceStore::dataVersion() {
  int64_t version = -1;
  if (sqlite3_step(dataVersion_) == SQLITE_ROW) version = sqlite3_column_int64(dataVersion_, 0);
  sqlite3_reset(dataVersion_);
  return version;
}

void PreferenceStore::mapWalIndex() {
  // The file exists while this connection is open in WAL mode, and SQLite
  // truncates it only when no connection anywhere has it open (this one holds
  // a shared lock on it until closed), so the mapping stays valid until the
  // destructor.
  std::string shm = path_.string() + "-shm";
  int fd = ::open(shm.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  struct stat info {};
  long page = sysconf(_SC_PAGESIZE);
  if (::fstat(fd, &info) == 0 && info.st_size >= page) {
    void* mapping = mmap(nullptr, static_cast<std::size_t>(page), PROT_READ, MAP_SHARED, fd, 0);
    if (mapping != MAP_FAILED) {
      walIndex_ = static_cast<const unsigned char*>(mapping);
      walIndexMapping_ = static_cast<std::size_t>(page);
    }
  }
  walIndexFd_ = fd;
}

void PreferenceStore::refreshIfChanged() {
  std::array<unsigned char, kWalIndexHeaderSize> header{};
  if (walIndex_ != nullptr) {
    std::atomic_thread_fence(std::memory_order_acquire);
    for (std::size_t i = 0; i < header.size(); ++i) {
      header[i] = __atomic_load_n(walIndex_ + i, __ATOMIC_RELAXED);
    }
    if (headerConfirmed_ && header == confirmedHeader_) return;
  }
  // The header is taken before asking SQLite: a commit in between changes it
  // again, so the next read asks once more.
  int64_t version = dataVersion();
  if (version != knownDataVersion_) {
    knownDataVersion_ = version;
    loadAll();
    publishConsentChanges(ConsentChangeCause::otherProcess, true);
  }
  confirmedHeader_ = header;
  headerConfirmed_ = walIndex_ != nullptr;
}

int PreferenceStore::loadAll() {
  Rows rows;
  int code;
  while ((code = sqlite3_step(selectAll_)) == SQLITE_ROW) {
    const auto* key = reinterpret_cast<const char*>(sqlite3_column_text(selectAll_, 0));
    if (key == nullptr) continue;
    if (auto value = columnValue(selectAll_)) {
      rows.emplace(std::string(key, sqlite3_column_bytes(selectAll_, 0)), std::move(*value));
    }
  }
  sqlite3_reset(selectAll_);
  if (code != SQLITE_DONE) return code;
  rows_ = std::move(rows);
  return SQLITE_OK;
}

bool PreferenceStore::holds(std::string_view key, const PreferenceValue* value) const {
  auto current = rows_.find(key);
  return value != nullptr ? current != rows_.end() && current->second == *value
                          : current == rows_.end();
}

int PreferenceStore::writeRow(std::string_view key, const PreferenceValue* value) {
  // The copy is current, so a write that would change nothing is skipped:
  // every commit is synced to the disk, and most writes (the applied
  // document's flags, the banner's interval) repeat what is stored.
  if (holds(key, value)) return SQLITE_OK;
  sqlite3_stmt* stmt = value != nullptr ? upsert_ : delete_;
  sqlite3_bind_text(stmt, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
  if (value != nullptr) bindValue(stmt, *value);
  int code = sqlite3_step(stmt);
  sqlite3_reset(stmt);
  sqlite3_clear_bindings(stmt);
  if (code != SQLITE_DONE) return code;
  // Our own commit does not move data_version, so the copy stays current.
  auto it = rows_.find(key);
  if (value == nullptr) {
    if (it != rows_.end()) rows_.erase(it);
  } else if (it != rows_.end()) {
    it->second = *value;
  } else {
    rows_.emplace(std::string(key), *value);
  }
  if (ConsentFeed::shared().active()) writtenRows_.emplace_back(key);
  return SQLITE_OK;
}

void PreferenceStore::publishConsentChanges(ConsentChangeCause cause, bool everyRow) {
  ConsentFeed& feed = ConsentFeed::shared();
  if (!feed.active() || (!everyRow && writtenRows_.empty())) {
    writtenRows_.clear();
    return;
  }
  ConsentFeed::Consents now;
  auto add = [&](const std::string& key, const PreferenceValue& value) {
    if (auto consent = consentOfRow(key, value)) now.insert_or_assign(key, *consent);
  };
  if (everyRow) {
    for (const auto& [key, value] : rows_) add(key, value);
  } else {
    for (const std::string& key : writtenRows_) {
      if (auto row = rows_.find(key); row != rows_.end()) add(key, row->second);
    }
  }
  feed.publish(cause, everyRow ? nullptr : &writtenRows_, now);
  writtenRows_.clear();
}

void PreferenceStore::announceCommit() {
  // Other processes watch the suite's directory for commits, but SQLite
  // makes a commit visible through the mapped WAL index, which inotify does
  // not see, after the WAL writes it does see. Touching the index once the
  // commit is visible gives watchers an event they cannot act on too early.
  if (walIndexFd_ >= 0) futimens(walIndexFd_, nullptr);
}

std::uint64_t PreferenceStore::observeConsents(ConsentFeed::Callback callback) {
  std::lock_guard lock(mutex_);
  refreshIfChanged();
  ConsentFeed::Consents current;
  for (const auto& [key, value] : rows_) {
    if (auto consent = consentOfRow(key, value)) current.emplace(key, *consent);
  }
  return ConsentFeed::shared().add(std::move(callback), std::move(current), path_.parent_path(),
                                   [] {
                                     auto store = currentStore();
                                     if (store && store->replacedOnDisk()) {
                                       // Follow the suite on disk, as a process
                                       // started now would; reopening publishes
                                       // what differs.
                                       resetCurrentStore();
                                       currentStore();
                                     } else if (store) {
                                       store->refresh();
                                     }
                                   });
}

void PreferenceStore::publishEveryConsent() {
  std::lock_guard lock(mutex_);
  refreshIfChanged();
  publishConsentChanges(ConsentChangeCause::otherProcess, true);
}

bool PreferenceStore::replacedOnDisk() const {
  struct stat now {};
  return ::stat(path_.c_str(), &now) != 0 || now.st_dev != device_ || now.st_ino != inode_;
}

void PreferenceStore::refresh() {
  std::lock_guard lock(mutex_);
  refreshIfChanged();
}

bool PreferenceStore::put(std::string_view key, PreferenceValue value, std::string* error) {
  operations_.fetch_add(1, std::memory_order_relaxed);
  std::lock_guard lock(mutex_);
  refreshIfChanged();
  int code = writeRow(key, &value);
  if (code != SQLITE_OK) *error = sqliteError(db_, code);
  if (code == SQLITE_OK) announceCommit();
  publishConsentChanges(currentConsentCause(), false);
  return code == SQLITE_OK;
}

bool PreferenceStore::remove(std::string_view key, std::string* error) {
  operations_.fetch_add(1, std::memory_order_relaxed);
  std::lock_guard lock(mutex_);
  refreshIfChanged();
  int code = writeRow(key, nullptr);
  if (code != SQLITE_OK) *error = sqliteError(db_, code);
  if (code == SQLITE_OK) announceCommit();
  publishConsentChanges(currentConsentCause(), false);
  return code == SQLITE_OK;
}

const PreferenceValue* PreferenceStore::Transaction::find(std::string_view key) const {
  auto it = store_.rows_.find(key);
  return it == store_.rows_.end() ? nullptr : &it->second;
}

void PreferenceStore::Transaction::put(std::string_view key, PreferenceValue value) {
  if (probing_) {
    changes_ = changes_ || !store_.holds(key, &value);
  } else if (failure_ == SQLITE_OK) {
    failure_ = store_.writeRow(key, &value);
  }
}

void PreferenceStore::Transaction::remove(std::string_view key) {
  if (probing_) {
    changes_ = changes_ || !store_.holds(key, nullptr);
  } else if (failure_ == SQLITE_OK) {
    failure_ = store_.writeRow(key, nullptr);
  }
}

bool PreferenceStore::update(const std::function<bool(Transaction&)>& body, std::string* error) {
  operations_.fetch_add(1, std::memory_order_relaxed);
  std::lock_guard lock(mutex_);
  // Most updates repeat what is stored (every apply of an unchanged
  // document), so the body first runs against the current copy. When no
  // write of it would change anything, what it read was all current too:
  // the update is done, without locking the file or syncing it.
  refreshIfChanged();
  Transaction probe(*this, true);
  const bool wantedUnchanged = body(probe);
  if (!probe.changes_) return wantedUnchanged;
  // IMMEDIATE takes the write lock now (waiting out other writers), so the
  // rows read below are the latest and stay so until the commit.
  int code = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) {
    *error = sqliteError(db_, code);
    return false;
  }
  refreshIfChanged();
  Transaction transaction(*this, false);
  const bool wanted = body(transaction);
  code = transaction.failure_;
  if (wanted && code == SQLITE_OK) {
    code = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
    if (code == SQLITE_OK) {
      announceCommit();
      publishConsentChanges(currentConsentCause(), false);
      return true;
    }
  }
  if (code != SQLITE_OK) *error = sqliteError(db_, code);
  sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  // The copy holds the abandoned writes: read it back from the file.
  loadAll();
  writtenRows_.clear();
  return false;
}

std::optional<std::int64_t> PreferenceStore::pragma(const std::string& statement) {
  std::lock_guard lock(mutex_);
  std::optional<std::int64_t> value;
  sqlite3_exec(
      db_, ("PRAGMA " + statement).c_str(),
      [](void* out, int columns, char** values, char**) {
        auto* first = static_cast<std::optional<std::int64_t>*>(out);
        if (!*first && columns > 0 && values[0] != nullptr) *first = std::atoll(values[0]);
        return 0;
      },
      &value, nullptr);
  return value;
}

bool PreferenceStore::removeAll(std::string* error) {
  operations_.fetch_add(1, std::memory_order_relaxed);
  std::lock_guard lock(mutex_);
  int code = sqlite3_exec(db_, "DELETE FROM preferences", nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) {
    *error = sqliteError(db_, code);
    return false;
  }
  rows_.clear();
  announceCommit();
  publishConsentChanges(currentConsentCause(), true);
  return true;
}

std::vector<PreferenceEntry> PreferenceStore::entries() {
  std::lock_guard lock(mutex_);
  refreshIfChanged();
  std::map<std::string_view, const PreferenceValue*> sorted;
  for (const auto& [key, value] : rows_) sorted.emplace(key, &value);
  std::vector<PreferenceEntry> result;
  result.reserve(sorted.size());
  for (const auto& [key, value] : sorted) result.push_back({std::string(key), *value});
  return result;
}

namespace {

struct StoreRegistry {
  std::mutex mutex;
  std::shared_ptr<PreferenceStore> store;  // guarded by mutex
  bool failed = false;                     // guarded by mutex: opening failed
};

StoreRegistry& registry();

// A fork waits until no thread is opening or closing the suite, so the child
// inherits the registry unlocked. The child opens a suite of its own: no
// SQLite connection may be used across a fork, so the parent's is left alone.
void beforeFork() { registry().mutex.lock(); }
void afterForkInParent() { registry().mutex.unlock(); }
void afterForkInChild() {
  StoreRegistry& r = registry();
  new std::shared_ptr<PreferenceStore>(std::move(r.store));  // never closed here
  r.mutex.unlock();
}

StoreRegistry& registry() {
  // Never destroyed: the store may be used from threads that outlive static
  // destruction (a host's detached threads, our own teardown at exit).
  static auto* instance = [] {
    pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
    return new StoreRegistry;
  }();
  return *instance;
}

}  // namespace

std::shared_ptr<PreferenceStore> currentStore() {
  StoreRegistry& r = registry();
  std::filesystem::path movedAside;
  std::string failure;
  std::shared_ptr<PreferenceStore> store;
  bool opened = false;
  {
    std::lock_guard lock(r.mutex);
    if (!r.store && !r.failed) {
      opened = true;
      auto result = PreferenceStore::open(currentPlatform()->applicationSupportDirectory());
      r.failed = !result.store;
      r.store = std::move(result.store);
      movedAside = std::move(result.movedAsidePath);
      failure = std::move(result.error);
    }
    store = r.store;
  }
  // Logged outside the registry lock: the logger reads the store.
  if (!failure.empty()) {
    SDKLogger::shared().log(std::string("Could not create or access UserDefaults suite: ") +
                                std::string(kPreferenceSuiteName) + " (" + failure + ")",
                            LogLevel::error, "currentStore()");
  }
  if (!movedAside.empty()) {
    SDKLogger::shared().log("Preference suite was unreadable; moved it to " + movedAside.string() +
                                " and created a new one",
                            LogLevel::error, "currentStore()");
  }
  if (opened && store && ConsentFeed::shared().active()) store->publishEveryConsent();
  return store;
}

void resetCurrentStore() {
  StoreRegistry& r = registry();
  std::shared_ptr<PreferenceStore> old;
  std::lock_guard lock(r.mutex);
  old.swap(r.store);
  r.failed = false;
}

}  // namespace pactivo::detail
