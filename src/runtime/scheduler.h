// Time for the recurring consent check: a clock that tests can drive, and a
// repeating timer on its own thread.
#ifndef PACTIVO_SRC_RUNTIME_SCHEDULER_H_
#define PACTIVO_SRC_RUNTIME_SCHEDULER_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stop_token>
#include <thread>

namespace pactivo::detail {

// Monotonic time and waiting on it. Thread-safe.
class Clock {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  virtual ~Clock() = default;
  virtual TimePoint now() = 0;
  // Blocks until `deadline` or until `stop` is requested; false when stopped.
  virtual bool sleepUntil(TimePoint deadline, std::stop_token stop) = 0;
};

// The steady clock.
class SteadyClock : public Clock {
 public:
  TimePoint now() override { return std::chrono::steady_clock::now(); }
  bool sleepUntil(TimePoint deadline, std::stop_token stop) override;

 private:
  std::mutex mutex_;
  std::condition_variable_any wake_;
};

// Calls `tick` after `interval`, then every `interval`, on its own thread.
// Deadlines advance by exactly one interval from the previous deadline, so
// ticks do not drift. A wake-up that finds the next deadline already passed
// (the process was frozen, or a tick ran long) ticks once and takes the next
// deadline a whole interval from then: missed ticks are never caught up.
// Destroying the timer stops it and waits for a tick in progress; it must not
// be destroyed from inside `tick`.
class RepeatingTimer {
 public:
  RepeatingTimer(Clock& clock, std::chrono::seconds interval, std::function<void()> tick);
  ~RepeatingTimer();
  RepeatingTimer(const RepeatingTimer&) = delete;
  RepeatingTimer& operator=(const RepeatingTimer&) = delete;

 private:
  std::jthread thread_;
};

// Calls `fire` once, `delay` from now, on its own thread. Destroying it
// before then cancels the call, and waits for a call in progress; it must not
// be destroyed from inside `fire`.
class OneShotTimer {
 public:
  OneShotTimer(Clock& clock, std::chrono::seconds delay, std::function<void()> fire);
  ~OneShotTimer();
  OneShotTimer(const OneShotTimer&) = delete;
  OneShotTimer& operator=(const OneShotTimer&) = delete;

  // Whether the call has started (or is done).
  bool fired() const { return fired_.load(); }

 private:
  std::atomic<bool> fired_{false};
  std::jthread thread_;
};

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_RUNTIME_SCHEDULER_H_
