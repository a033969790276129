#include "runtime/scheduler.h"

#include <pthread.h>

namespace pactivo::detail {

bool SteadyClock::sleepUntil(TimePoint deadline, std::stop_token stop) {
  std::unique_lock lock(mutex_);
  // Nothing notifies wake_ but a stop request: the wait ends at the deadline.
  wake_.wait_until(lock, stop, deadline, [] { return false; });
  return !stop.stop_requested();
}

RepeatingTimer::RepeatingTimer(Clock& clock, std::chrono::seconds interval,
                               std::function<void()> tick)
    // The first deadline is taken now, not when the thread gets to run.
    : thread_([&clock, interval, deadline = clock.now() + interval,
               tick = std::move(tick)](std::stop_token stop) mutable {
        pthread_setname_np(pthread_self(), "pactivo-timer");
        while (clock.sleepUntil(deadline, stop)) {
          tick();
          deadline += interval;
          const Clock::TimePoint now = clock.now();
          if (deadline <= now) deadline = now + interval;
        }
      }) {}

// std::jthread asks the thread to stop and joins it.
RepeatingTimer::~RepeatingTimer() = default;

OneShotTimer::OneShotTimer(Clock& clock, std::chrono::seconds delay, std::function<void()> fire)
    : thread_([this, &clock, deadline = clock.now() + delay,
               fire = std::move(fire)](std::stop_token stop) {
        pthread_setname_np(pthread_self(), "pactivo-report");
        if (!clock.sleepUntil(deadline, stop)) return;
        fired_ = true;
        fire();
      }) {}

OneShotTimer::~OneShotTimer() = default;

}  // namespace pactivo::detail
