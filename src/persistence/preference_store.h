// The SQLite-backed key-value suite behind UserDefaultManager.
#ifndef PACTIVO_SRC_PERSISTENCE_PREFERENCE_STORE_H_
#define PACTIVO_SRC_PERSISTENCE_PREFERENCE_STORE_H_

#include <sqlite3.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "pactivo/user_default_manager.h"
#include "runtime/consent_feed.h"

namespace pactivo::detail {

// One connection to the suite's database with an in-memory copy of all its
// rows. Reads are served from the copy, which is reloaded whenever another
// connection (another process, or a second store on the same file) has
// committed since the last read. Writes commit at once and update the copy.
//
// Thread-safe: one mutex serialises the connection and the copy.
class PreferenceStore {
 public:
  // What open() found on disk.
  struct OpenResult {
    std::unique_ptr<PreferenceStore> store;  // null when the suite cannot be opened
    std::string error;                       // why, when store is null
    std::filesystem::path movedAsidePath;    // set when an unusable file was moved aside
  };

  static constexpr std::string_view kFileName = "tessarin-cmp-sdk.sqlite";

  // Opens (creating when needed) the suite in `directory`. A file that SQLite
  // reports as corrupt or not a database is renamed with a timestamp and a
  // new suite is created in its place.
  static OpenResult open(const std::filesystem::path& directory);

  ~PreferenceStore();
  PreferenceStore(const PreferenceStore&) = delete;
  PreferenceStore& operator=(const PreferenceStore&) = delete;

  // Calls `reader` with the stored value (null when absent) while the copy is
  // locked; the pointer is valid only during the call.
  template <typename Reader>
  auto read(std::string_view key, Reader&& reader) {
    operations_.fetch_add(1, std::memory_order_relaxed);
    std::lock_guard lock(mutex_);
    refreshIfChanged();
    auto it = rows_.find(key);
    return reader(it == rows_.end() ? static_cast<const PreferenceValue*>(nullptr) : &it->second);
  }

  // Several reads and writes that commit together or not at all. Reads see
  // the transaction's own writes. Only valid inside update().
  class Transaction {
   public:
    const PreferenceValue* find(std::string_view key) const;
    void put(std::string_view key, PreferenceValue value);
    void remove(std::string_view key);

   private:
    friend class PreferenceStore;
    Transaction(PreferenceStore& store, bool probing) : store_(store), probing_(probing) {}
    PreferenceStore& store_;
    // Only notes whether a write would change anything (probing_ is set).
    const bool probing_;
    bool changes_ = false;
    int failure_ = 0;  // SQLite code of the first failed write
  };

  // Runs `body` in one write transaction, which also keeps other processes'
  // writers out until it ends, so what `body` reads cannot change before its
  // writes land. Commits when `body` returns true and every write succeeded;
  // otherwise every key keeps its old value. Returns whether it committed;
  // `*error` says why not when SQLite refused (and stays empty when `body`
  // chose to stop). `body` must not call back into the store, and may be run
  // twice: once against the copy, to find out whether it changes anything
  // at all (when not, no transaction is begun), then for real.
  bool update(const std::function<bool(Transaction&)>& body, std::string* error);

  // Stores `value` under `key`. Returns false, with the reason in `*error`,
  // when SQLite refused the write; the copy then keeps the old value.
  bool put(std::string_view key, PreferenceValue value, std::string* error);
  bool remove(std::string_view key, std::string* error);
  // Removes every row in one transaction.
  bool removeAll(std::string* error);

  // Every row, ordered by key.
  std::vector<PreferenceEntry> entries();

  const std::filesystem::path& path() const { return path_; }

  // Registers `callback` with the process's consent feed. Its first delivery
  // holds every consent stored now; from then on, every commit that changes
  // a consent is published to the feed, this process's and others'.
  std::uint64_t observeConsents(ConsentFeed::Callback callback);
  // Publishes what other processes committed since the last look.
  void refresh();
  // Whether the file at path() is no longer the one this store has open:
  // another process deleted it, or replaced it after finding it corrupt.
  bool replacedOnDisk() const;
  // Publishes every consent that differs from what the feed last published:
  // for a store opened while observers wait, after another process may have
  // changed the suite.
  void publishEveryConsent();

  // Runs "PRAGMA <statement>" on this store's connection and returns the
  // first column of its first row, if any: the settings in force here
  // ("synchronous") or a per-connection limit ("max_page_count=10").
  std::optional<std::int64_t> pragma(const std::string& statement);

  // Reads and writes served since the store was opened; for measurements.
  std::uint64_t operationCount() const { return operations_.load(std::memory_order_relaxed); }

 private:
  struct TransparentHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept {
      return std::hash<std::string_view>{}(text);
    }
  };
  using Rows = std::unordered_map<std::string, PreferenceValue, TransparentHash, std::equal_to<>>;

  PreferenceStore(sqlite3* db, std::filesystem::path path);
  // Prepares statements, loads all rows; builds the suite first when `fresh`
  // (the file was missing or empty). Returns the SQLite code of the first
  // failure, SQLITE_OK on success.
  int initialise(bool fresh, std::string* error);
  // Makes what building a fresh suite wrote reach the disk.
  int syncFreshSuite();
  void refreshIfChanged();
  int loadAll();
  // Runs the upsert or delete statement for one key and mirrors it in the
  // copy; the SQLite code.
  int writeRow(std::string_view key, const PreferenceValue* value);
  // Whether `key` holds `value` (null: is absent) in the copy.
  bool holds(std::string_view key, const PreferenceValue* value) const;
  int64_t dataVersion();
  void mapWalIndex();
  // Publishes the consents that changed since the last publication: among
  // the rows written since (`everyRow` false) or among all rows.
  void publishConsentChanges(ConsentChangeCause cause, bool everyRow);
  // Tells other processes' watchers that a commit is now visible.
  void announceCommit();

  sqlite3* const db_;
  const std::filesystem::path path_;
  dev_t device_ = 0;  // the identity of the file opened, set by initialise()
  ino_t inode_ = 0;
  std::atomic<std::uint64_t> operations_{0};

  // The first header of the WAL index ("-shm" file), mapped read-only. Every
  // commit, from any connection, rewrites it, so an unchanged header proves
  // that nothing was committed without asking SQLite (whose read transaction
  // costs several lock system calls). Null when it could not be mapped.
  static constexpr std::size_t kWalIndexHeaderSize = 48;
  const unsigned char* walIndex_ = nullptr;
  std::size_t walIndexMapping_ = 0;
  // Kept open until the connection is closed: closing any descriptor of a
  // file drops every POSIX lock the process holds on it, SQLite's included.
  int walIndexFd_ = -1;

  std::mutex mutex_;
  // State below is guarded by mutex_.
  sqlite3_stmt* upsert_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
  sqlite3_stmt* selectAll_ = nullptr;
  sqlite3_stmt* dataVersion_ = nullptr;
  int64_t knownDataVersion_ = -1;
  // The WAL-index header when knownDataVersion_ was last confirmed.
  std::array<unsigned char, kWalIndexHeaderSize> confirmedHeader_{};
  bool headerConfirmed_ = false;
  Rows rows_;
  // While the feed has observers: the rows written since the last
  // publication.
  std::vector<std::string> writtenRows_;
};

// The suite of the current platform, opened on first use; null when it cannot
// be opened. That failure is logged once and lasts until resetCurrentStore():
// without its suite the library runs with nothing stored rather than take the
// host down with it. The result stays usable while held, even if the platform
// changes meanwhile.
std::shared_ptr<PreferenceStore> currentStore();

// Closes the current suite; the next currentStore() opens the suite of the
// platform in use then.
void resetCurrentStore();

// Array values are kept as one text column; exposed for the tests of the
// persisted format.
std::string encodeArray(const std::vector<PreferenceArrayElement>& elements);
std::optional<std::vector<PreferenceArrayElement>> decodeArray(std::string_view text);

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_PERSISTENCE_PREFERENCE_STORE_H_
