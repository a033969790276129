// Background tasks of the facade: each on its own thread, cancellable, and
// all joined when the runner is destroyed.
#ifndef PACTIVO_SRC_RUNTIME_TASK_RUNNER_H_
#define PACTIVO_SRC_RUNTIME_TASK_RUNNER_H_

#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <stop_token>
#include <thread>

namespace pactivo::detail {

// Refers to one started task. Copyable; cancelling through any copy asks the
// task to stop. Never waits for the task.
class TaskHandle {
 public:
  TaskHandle() = default;
  explicit TaskHandle(std::stop_source source) : source_(std::move(source)) {}
  void cancel() { source_.request_stop(); }

 private:
  std::stop_source source_{std::nostopstate};
};

// Thread-safe. The destructor cancels every task still running and joins it;
// a task must therefore notice its stop token (or finish) promptly.
class TaskRunner {
 public:
  TaskRunner() = default;
  ~TaskRunner();
  TaskRunner(const TaskRunner&) = delete;
  TaskRunner& operator=(const TaskRunner&) = delete;

  // Runs `body` on a new thread. Inside it, currentTaskStopToken() returns
  // the task's token. After shutdown() the body is not run.
  TaskHandle start(std::function<void()> body);

  // Cancels every running task and waits for all of them to end.
  void shutdown();

  // How many tasks have not finished yet.
  std::size_t runningCount();

  // Waits until no task is running, including tasks started meanwhile.
  void waitUntilIdle();

 private:
  struct Shared {
    std::mutex mutex;
    std::condition_variable taskEnded;
  };
  struct Task {
    std::thread thread;
    std::stop_source source;
    std::shared_ptr<bool> done;  // guarded by Shared::mutex
  };
  void reapFinishedLocked();

  const std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
  // State below is guarded by shared_->mutex.
  bool closed_ = false;
  std::list<Task> tasks_;
};

// The stop token of the task running on this thread; a token that never stops
// on threads that are not tasks (a host's own thread).
std::stop_token currentTaskStopToken();

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_RUNTIME_TASK_RUNNER_H_
