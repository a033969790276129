#include "sdk/scheduler.h"

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
        while (clock.sleepUntil(deadline, stop)) {
          tick();
          deadline += interval;
        }
      }) {}

// std::jthread asks the thread to stop and joins it.
RepeatingTimer::~RepeatingTimer() = default;

}  // namespace pactivo::detail
