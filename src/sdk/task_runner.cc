#include "sdk/task_runner.h"

#include <vector>

namespace pactivo::detail {
namespace {

thread_local std::stop_token currentToken;

}  // namespace

std::stop_token currentTaskStopToken() { return currentToken; }

TaskRunner::~TaskRunner() { shutdown(); }

void TaskRunner::reapFinishedLocked() {
  for (auto it = tasks_.begin(); it != tasks_.end();) {
    if (it->done->load(std::memory_order_acquire)) {
      it->thread.join();
      it = tasks_.erase(it);
    } else {
      ++it;
    }
  }
}

TaskHandle TaskRunner::start(std::function<void()> body) {
  std::lock_guard lock(mutex_);
  reapFinishedLocked();
  if (closed_) return TaskHandle();
  Task& task = tasks_.emplace_back();
  std::stop_token token = task.source.get_token();
  task.thread = std::thread([body = std::move(body), token, done = task.done] {
    currentToken = token;
    if (!token.stop_requested()) body();
    currentToken = std::stop_token();
    done->store(true, std::memory_order_release);
  });
  return TaskHandle(task.source);
}

void TaskRunner::shutdown() {
  std::list<Task> tasks;
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    tasks.swap(tasks_);
  }
  for (Task& task : tasks) task.source.request_stop();
  for (Task& task : tasks) {
    // A host may drop the last reference to the facade from inside one of
    // its tasks (a readiness callback); that thread cannot join itself.
    if (task.thread.get_id() == std::this_thread::get_id()) {
      task.thread.detach();
    } else {
      task.thread.join();
    }
  }
}

std::size_t TaskRunner::runningCount() {
  std::lock_guard lock(mutex_);
  reapFinishedLocked();
  return tasks_.size();
}

}  // namespace pactivo::detail
