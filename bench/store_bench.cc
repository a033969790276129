// Preference store latency against raw SQLite on the same kind of file.
//
// The library's typed get is served from memory after one data_version check;
// a flushed set is one upsert in its own transaction, synced in full (it must
// survive a power cut). BM_RawUpsert/2 uses the same pragmas, so the ratio
// shows what the library adds; BM_RawUpsert/1 (synchronous=NORMAL) shows what
// the full sync itself costs on this file system.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "pactivo/user_default_manager.h"
#include "persistence/preference_store.h"
#include "purposes/purpose_manager.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

class RawSqlite {
 public:
  explicit RawSqlite(const std::filesystem::path& dir, int synchronous = 2) {
    std::filesystem::create_directories(dir);
    sqlite3_open((dir / "raw.sqlite").c_str(), &db_);
    const std::string pragmas =
        "PRAGMA journal_mode=WAL; PRAGMA synchronous=" + std::to_string(synchronous) +
        ";"
        "CREATE TABLE IF NOT EXISTS kv(key TEXT PRIMARY KEY, value) "
        "WITHOUT ROWID";
    sqlite3_exec(db_, pragmas.c_str(), nullptr, nullptr, nullptr);
    sqlite3_prepare_v2(db_,
                       "INSERT INTO kv VALUES(?1, ?2) ON CONFLICT(key) DO UPDATE SET "
                       "value = excluded.value",
                       -1, &upsert_, nullptr);
    sqlite3_prepare_v2(db_, "SELECT value FROM kv WHERE key = ?1", -1, &select_, nullptr);
  }
  ~RawSqlite() {
    sqlite3_finalize(upsert_);
    sqlite3_finalize(select_);
    sqlite3_close(db_);
  }
  void upsert(const char* key, const char* value) {
    sqlite3_bind_text(upsert_, 1, key, -1, SQLITE_STATIC);
    sqlite3_bind_text(upsert_, 2, value, -1, SQLITE_STATIC);
    sqlite3_step(upsert_);
    sqlite3_reset(upsert_);
  }
  std::string read(const char* key) {
    sqlite3_bind_text(select_, 1, key, -1, SQLITE_STATIC);
    std::string value;
    if (sqlite3_step(select_) == SQLITE_ROW) {
      value = reinterpret_cast<const char*>(sqlite3_column_text(select_, 0));
    }
    sqlite3_reset(select_);
    return value;
  }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* upsert_ = nullptr;
  sqlite3_stmt* select_ = nullptr;
};

void BM_RawUpsert(benchmark::State& state) {
  testing::TempDir dir;
  RawSqlite raw(dir.path(), static_cast<int>(state.range(0)));
  bool flip = false;
  for (auto _ : state) {
    raw.upsert("12", flip ? "granted" : "declined");
    flip = !flip;
  }
}
BENCHMARK(BM_RawUpsert)->Arg(1)->Arg(2)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_RawPointRead(benchmark::State& state) {
  testing::TempDir dir;
  RawSqlite raw(dir.path());
  raw.upsert("12", "granted");
  for (auto _ : state) benchmark::DoNotOptimize(raw.read("12"));
}
BENCHMARK(BM_RawPointRead)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_SetPurposeConsent(benchmark::State& state) {
  testing::ScopedPlatform scoped;
  UserDefaultManager::setPurposeConsent("12", ConsentStatus::granted);
  bool flip = false;
  for (auto _ : state) {
    UserDefaultManager::setPurposeConsent("12",
                                          flip ? ConsentStatus::granted : ConsentStatus::declined);
    flip = !flip;
  }
}
BENCHMARK(BM_SetPurposeConsent)->Repetitions(5)->ReportAggregatesOnly(true);

// A host's choice: the consent with its flags, time and pending entry, in one
// transaction.
void BM_RecordChoice(benchmark::State& state) {
  testing::ScopedPlatform scoped;
  Purpose purpose;
  purpose.purposeId = 12;
  bool flip = false;
  for (auto _ : state) {
    detail::PurposeManager::updatePurposeConsent(
        purpose, flip ? ConsentStatus::granted : ConsentStatus::declined, kConsentExplicit);
    flip = !flip;
  }
}
BENCHMARK(BM_RecordChoice)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_GetPurposeConsent(benchmark::State& state) {
  testing::ScopedPlatform scoped;
  for (int i = 0; i < 1000; ++i) {
    UserDefaultManager::setPurposeConsent(std::to_string(i), ConsentStatus::granted);
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(UserDefaultManager::getPurposeConsent("12", ConsentStatus::declined));
  }
}
BENCHMARK(BM_GetPurposeConsent)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_GetString(benchmark::State& state) {
  testing::ScopedPlatform scoped;
  UserDefaultManager::setString(keys::kConsentGivenType, kConsentExplicit);
  for (auto _ : state) {
    benchmark::DoNotOptimize(UserDefaultManager::getString(keys::kConsentGivenType, ""));
  }
}
BENCHMARK(BM_GetString)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
}  // namespace pactivo
