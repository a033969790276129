#include "pactivo/sdk_listener.h"

#include <vector>

namespace pactivo {

SDKListener::Observation::Observation(Observation&& other) noexcept
    : listener_(std::move(other.listener_)), id_(other.id_) {}

SDKListener::Observation& SDKListener::Observation::operator=(Observation&& other) noexcept {
  if (this != &other) {
    invalidate();
    listener_ = std::move(other.listener_);
    id_ = other.id_;
  }
  return *this;
}

SDKListener::Observation::~Observation() { invalidate(); }

void SDKListener::Observation::invalidate() {
  if (!listener_) return;
  {
    std::lock_guard lock(listener_->mutex_);
    listener_->observers_.erase(id_);
  }
  listener_.reset();
}

SDKListener::Observation SDKListener::observe(const std::shared_ptr<SDKListener>& listener,
                                              Observer observer) {
  std::lock_guard lock(listener->mutex_);
  std::uint64_t id = listener->nextId_++;
  listener->observers_.emplace(id, std::make_shared<const Observer>(std::move(observer)));
  return Observation(listener, id);
}

void SDKListener::setIsReady(SDKStatus status) {
  std::vector<std::shared_ptr<const Observer>> observers;
  SDKStatus old;
  {
    std::lock_guard lock(mutex_);
    old = status_.exchange(status, std::memory_order_acq_rel);
    observers.reserve(observers_.size());
    for (const auto& [id, observer] : observers_) observers.push_back(observer);
  }
  for (const auto& observer : observers) (*observer)(old, status);
}

}  // namespace pactivo
