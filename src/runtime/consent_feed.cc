#include "runtime/consent_feed.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <vector>

#include "pactivo/logger.h"

namespace pactivo::detail {
namespace {

thread_local ConsentChangeCause tCause = ConsentChangeCause::host;

// The suite's database and its "-wal", "-shm" and "-journal" companions.
constexpr std::string_view kSuiteFilePrefix = "tessarin-cmp-sdk.sqlite";

std::optional<std::int64_t> purposeIdOf(std::string_view key) {
  std::int64_t id = 0;
  auto [end, error] = std::from_chars(key.data(), key.data() + key.size(), id);
  if (error != std::errc() || end != key.data() + key.size() || key.empty()) return std::nullopt;
  return id;
}

bool isLibraryKey(std::string_view key) {
  return std::find(keys::kLibraryKeys.begin(), keys::kLibraryKeys.end(), key) !=
         keys::kLibraryKeys.end();
}

}  // namespace

ConsentCauseScope::ConsentCauseScope(ConsentChangeCause cause) : previous_(tCause) {
  tCause = cause;
}

ConsentCauseScope::~ConsentCauseScope() { tCause = previous_; }

ConsentChangeCause currentConsentCause() { return tCause; }

std::optional<ConsentStatus> consentOfRow(std::string_view key, const PreferenceValue& value) {
  const auto* text = std::get_if<std::string>(&value);
  if (text == nullptr || (!purposeIdOf(key) && isLibraryKey(key))) return std::nullopt;
  return fromRawValue<ConsentStatus>(*text);
}

namespace {

ConsentChange consentChange(std::string_view key, std::optional<ConsentStatus> before,
                            std::optional<ConsentStatus> after) {
  ConsentChange change;
  change.purposeId = purposeIdOf(key);
  if (!change.purposeId) change.permission = std::string(key);
  change.before = before;
  change.after = after;
  return change;
}

void sortChanges(std::vector<ConsentChange>& changes) {
  std::sort(changes.begin(), changes.end(), [](const ConsentChange& a, const ConsentChange& b) {
    return std::tie(a.permission, a.purposeId) < std::tie(b.permission, b.purposeId);
  });
}

std::optional<ConsentStatus> find(const ConsentFeed::Consents& consents, std::string_view key) {
  auto it = consents.find(key);
  return it == consents.end() ? std::nullopt : std::optional<ConsentStatus>(it->second);
}

}  // namespace

ConsentFeed& ConsentFeed::shared() {
  static auto* feed = new ConsentFeed;
  return *feed;
}

bool ConsentFeed::active() const { return active_.load(std::memory_order_acquire); }

void ConsentFeed::publish(ConsentChangeCause cause, const std::vector<std::string>* rows,
                          const Consents& now) {
  {
    std::lock_guard lock(mutex_);
    if (observers_.empty()) return;
    std::vector<std::string> everyRow;
    if (rows == nullptr) {
      for (const auto& [key, consent] : published_) everyRow.push_back(key);
      for (const auto& [key, consent] : now) everyRow.push_back(key);
      rows = &everyRow;
    }
    ConsentChanges changes{cause, {}};
    for (const std::string& key : *rows) {
      const auto before = find(published_, key);
      const auto after = find(now, key);
      if (before == after) continue;  // unchanged, or a row seen twice
      changes.changes.push_back(consentChange(key, before, after));
      after ? (void)published_.insert_or_assign(key, *after) : (void)published_.erase(key);
    }
    if (changes.changes.empty()) return;
    sortChanges(changes.changes);
    queue_.push_back({nextSequence_++, 0, std::move(changes)});
  }
  wake();
}

std::uint64_t ConsentFeed::add(Callback callback, Consents current,
                               const std::filesystem::path& suiteDirectory,
                               std::function<void()> poll) {
  std::uint64_t id;
  {
    std::lock_guard lock(mutex_);
    id = nextId_++;
    const std::uint64_t sequence = nextSequence_++;
    observers_.emplace(id, std::make_shared<Observer>(Observer{std::move(callback), sequence}));
    ConsentChanges state{ConsentChangeCause::currentState, {}};
    for (const auto& [key, consent] : current) {
      state.changes.push_back(consentChange(key, std::nullopt, consent));
    }
    sortChanges(state.changes);
    queue_.push_back({sequence, id, std::move(state)});
    published_ = std::move(current);
    if (poll) poll_ = std::move(poll);
    active_.store(true, std::memory_order_release);
    startLocked(suiteDirectory);
  }
  wake();
  return id;
}

void ConsentFeed::cancel(std::uint64_t id) {
  std::unique_lock lock(mutex_);
  observers_.erase(id);
  if (observers_.empty()) active_.store(false, std::memory_order_release);
  // From inside a callback the delivery in progress is the caller's own.
  if (std::this_thread::get_id() == threadId_) return;
  delivered_.wait(lock, [&] { return delivering_ != id; });
}

void ConsentFeed::startLocked(const std::filesystem::path& suiteDirectory) {
  if (!thread_.joinable()) {
    eventFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epollFd_ = epoll_create1(EPOLL_CLOEXEC);
    inotifyFd_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    for (int fd : {eventFd_, inotifyFd_}) {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.fd = fd;
      epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event);
    }
    pthread_atfork(nullptr, nullptr, afterFork);
    // Never joined: the feed lives until the process ends.
    thread_ = std::thread([this] { run(); });
    threadId_ = thread_.get_id();
  }
  // A directory watch, unlike one on the file, survives the suite being
  // replaced or recreated.
  if (!suiteDirectory.empty() && suiteDirectory != watchedDirectory_) {
    if (watch_ >= 0) inotify_rm_watch(inotifyFd_, watch_);
    watch_ = inotify_add_watch(
        inotifyFd_, suiteDirectory.c_str(),
        IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM);
    watchedDirectory_ = suiteDirectory;
  }
}

void ConsentFeed::afterFork() { shared().active_.store(false, std::memory_order_release); }

void ConsentFeed::wake() {
  const std::uint64_t one = 1;
  if (eventFd_ >= 0) (void)!write(eventFd_, &one, sizeof one);
}

void ConsentFeed::run() {
  pthread_setname_np(pthread_self(), "pactivo-events");
  std::array<char, 4096> buffer alignas(inotify_event);
  for (;;) {
    std::array<epoll_event, 2> events{};
    const int ready = epoll_wait(epollFd_, events.data(), events.size(), -1);
    if (ready < 0 && errno != EINTR) return;
    bool suiteChanged = false;
    for (int i = 0; i < ready; ++i) {
      if (events[i].data.fd == eventFd_) {
        std::uint64_t count;
        (void)!read(eventFd_, &count, sizeof count);
        continue;
      }
      ssize_t length;
      while ((length = read(inotifyFd_, buffer.data(), buffer.size())) > 0) {
        for (ssize_t at = 0; at < length;) {
          const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
          if (event->len > 0 && std::string_view(event->name).starts_with(kSuiteFilePrefix)) {
            suiteChanged = true;
          }
          at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
      }
    }
    if (suiteChanged) {
      std::function<void()> poll;
      {
        std::lock_guard lock(mutex_);
        poll = poll_;
      }
      if (poll) poll();  // publishes what other processes committed
    }
    deliverQueued();
  }
}

void ConsentFeed::deliverQueued() {
  std::unique_lock lock(mutex_);
  while (!queue_.empty()) {
    Batch batch = std::move(queue_.front());
    queue_.pop_front();
    std::vector<std::pair<std::uint64_t, std::shared_ptr<Observer>>> targets;
    for (const auto& [id, observer] : observers_) {
      if ((batch.onlyFor == 0 || batch.onlyFor == id) &&
          batch.sequence >= observer->firstSequence) {
        targets.emplace_back(id, observer);
      }
    }
    for (const auto& [id, observer] : targets) {
      if (!observers_.contains(id)) continue;  // cancelled by an earlier callback
      delivering_ = id;
      lock.unlock();
      std::string failure;
      try {
        observer->callback(batch.changes);
      } catch (const std::exception& error) {
        failure = error.what();
      } catch (...) {
        failure = "unknown exception";
      }
      if (!failure.empty()) {
        SDKLogger::shared().log("Consent observer threw: " + failure, LogLevel::error,
                                "observeConsents(_:)");
      }
      lock.lock();
      delivering_ = 0;
      delivered_.notify_all();
    }
  }
}

}  // namespace pactivo::detail
