// The process-wide feed of consent changes behind ConsentSDK::observeConsents().
//
// The preference store publishes what each of its commits changed, and what
// other processes committed, as it notices them; the feed's one thread hands
// those batches to the observers, in the order they were published, with no
// lock held. The thread starts with the first observer. It waits in epoll on
// an eventfd (a local commit) and an inotify watch of the suite's directory
// (another process's commit), so an idle observer costs no wake-ups.
#ifndef PACTIVO_SRC_RUNTIME_CONSENT_FEED_H_
#define PACTIVO_SRC_RUNTIME_CONSENT_FEED_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "pactivo/consent_changes.h"
#include "pactivo/user_default_manager.h"

namespace pactivo::detail {

// Tags the consent writes this thread makes while it lives with `cause`;
// untagged writes are the host's.
class ConsentCauseScope {
 public:
  explicit ConsentCauseScope(ConsentChangeCause cause);
  ~ConsentCauseScope();
  ConsentCauseScope(const ConsentCauseScope&) = delete;
  ConsentCauseScope& operator=(const ConsentCauseScope&) = delete;

 private:
  ConsentChangeCause previous_;
};

// The cause of this thread's writes now.
ConsentChangeCause currentConsentCause();

// The consent a stored row holds, when the row is a purpose's (a decimal id)
// or a permission's (any other key holding a consent text that is not one of
// the library's own keys).
std::optional<ConsentStatus> consentOfRow(std::string_view key, const PreferenceValue& value);

class ConsentFeed {
 public:
  using Callback = std::function<void(const ConsentChanges&)>;
  // Stored consents by row key.
  using Consents = std::map<std::string, ConsentStatus, std::less<>>;

  // Never destroyed: stores publish from any thread until the process ends.
  static ConsentFeed& shared();

  // Whether any observer is registered; stores work out changes only then.
  bool active() const;

  // Queues what one commit changed: `now` holds the consents of the rows
  // named in `rows` (of every row when null), compared with what was
  // published last. Never blocks on an observer. Called by the store with
  // its lock held, so batches queue in commit order.
  void publish(ConsentChangeCause cause, const std::vector<std::string>* rows, const Consents& now);

  // Registers `callback`, whose first delivery is `current`, every consent
  // stored now; later ones are the batches published after this call. `suiteDirectory` is watched
  // for other processes' commits, which `poll` (the store's own check for them, run on the feed's
  // thread) publishes. Called by the store with its lock held.
  std::uint64_t add(Callback callback, Consents current,
                    const std::filesystem::path& suiteDirectory, std::function<void()> poll);

  // Ends an observation: see ConsentObservation::cancel().
  void cancel(std::uint64_t id);

 private:
  ConsentFeed() = default;
  struct Observer {
    Callback callback;
    std::uint64_t firstSequence;  // the batches it receives start here
  };
  struct Batch {
    std::uint64_t sequence;
    std::uint64_t onlyFor;  // the current-state batch goes to one observer only
    ConsentChanges changes;
  };
  void startLocked(const std::filesystem::path& suiteDirectory);
  // In a forked child, which has no feed thread: its stores publish nothing.
  static void afterFork();
  void run();
  void deliverQueued();
  void wake();

  std::atomic<bool> active_{false};
  mutable std::mutex mutex_;
  // State below is guarded by mutex_.
  std::map<std::uint64_t, std::shared_ptr<Observer>> observers_;
  std::deque<Batch> queue_;
  Consents published_;  // as the last batch left them
  std::uint64_t nextId_ = 1;
  std::uint64_t nextSequence_ = 1;
  std::uint64_t delivering_ = 0;  // the observer whose callback runs now
  std::condition_variable delivered_;
  std::function<void()> poll_;
  std::thread thread_;
  std::thread::id threadId_;
  int eventFd_ = -1;
  int epollFd_ = -1;
  int inotifyFd_ = -1;
  int watch_ = -1;
  std::filesystem::path watchedDirectory_;
};

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_RUNTIME_CONSENT_FEED_H_
