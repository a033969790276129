#include "runtime/task_runner.h"

#include <pthread.h>

namespace pactivo::detail {
namespace {

thread_local std::stop_token currentToken;

}  // namespace

std::stop_token currentTaskStopToken() { return currentToken; }

TaskRunner::~TaskRunner() { shutdown(); }

void TaskRunner::reapFinishedLocked() {
  for (auto it = tasks_.begin(); it != tasks_.end();) {
    if (*it->done) {
      it->thread.join();
      it = tasks_.erase(it);
    } else {
      ++it;
    }
  }
}

TaskHandle TaskRunner::start(std::function<void()> body) {
  std::lock_guard lock(shared_->mutex);
  reapFinishedLocked();
  if (closed_) return TaskHandle();
  Task& task = tasks_.emplace_back();
  task.done = std::make_shared<bool>(false);
  std::stop_token token = task.source.get_token();
  // The thread holds the shared state, not the runner: a thread detached at
  // shutdown may finish after the runner is gone.
  task.thread = std::thread([shared = shared_, done = task.done, body = std::move(body), token] {
    pthread_setname_np(pthread_self(), "pactivo-task");
    currentToken = token;
    if (!token.stop_requested()) body();
    currentToken = std::stop_token();
    std::lock_guard lock(shared->mutex);
    *done = true;
    shared->taskEnded.notify_all();
  });
  return TaskHandle(task.source);
}

void TaskRunner::shutdown() {
  std::list<Task> tasks;
  {
    std::lock_guard lock(shared_->mutex);
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

void TaskRunner::waitUntilIdle() {
  std::unique_lock lock(shared_->mutex);
  shared_->taskEnded.wait(lock, [this] {
    for (const Task& task : tasks_) {
      if (!*task.done) return false;
    }
    return true;
  });
  reapFinishedLocked();
}

std::size_t TaskRunner::runningCount() {
  std::lock_guard lock(shared_->mutex);
  reapFinishedLocked();
  return tasks_.size();
}

}  // namespace pactivo::detail
