// SDKListener: an observable readiness status.
//
// Threading: every member may be called from any thread. Observers run on the
// thread that changed the status, after the listener's lock is released, so
// an observer may read the status or end its own observation.
#ifndef PACTIVO_SDK_LISTENER_H_
#define PACTIVO_SDK_LISTENER_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "pactivo/enums.h"
#include "pactivo/export.h"

namespace pactivo {

class PACTIVO_EXPORT SDKListener {
 public:
  // Called with the old and the new status after every write, even when
  // the value is unchanged.
  using Observer = std::function<void(SDKStatus oldValue, SDKStatus newValue)>;

  // Ends its observation when destroyed or reset. Move-only.
  class PACTIVO_EXPORT Observation {
   public:
    Observation() = default;
    Observation(Observation&& other) noexcept;
    Observation& operator=(Observation&& other) noexcept;
    ~Observation();

    // Stops delivery; an observer already running on another thread finishes.
    void invalidate();
    explicit operator bool() const { return listener_ != nullptr; }

   private:
    friend class SDKListener;
    Observation(std::shared_ptr<SDKListener> listener, std::uint64_t id)
        : listener_(std::move(listener)), id_(id) {}
    std::shared_ptr<SDKListener> listener_;
    std::uint64_t id_ = 0;
  };

  SDKListener() = default;  // status `unavailable`
  SDKListener(const SDKListener&) = delete;
  SDKListener& operator=(const SDKListener&) = delete;

  SDKStatus isReady() const { return status_.load(std::memory_order_acquire); }
  // Stores `status` and then notifies every observer.
  void setIsReady(SDKStatus status);

  // Starts observing `listener`; the observation holds it alive.
  static Observation observe(const std::shared_ptr<SDKListener>& listener, Observer observer);

 private:
  std::atomic<SDKStatus> status_{SDKStatus::unavailable};
  std::mutex mutex_;
  std::uint64_t nextId_ = 1;                                            // guarded by mutex_
  std::map<std::uint64_t, std::shared_ptr<const Observer>> observers_;  // guarded by mutex_
};

}  // namespace pactivo

#endif  // PACTIVO_SDK_LISTENER_H_
