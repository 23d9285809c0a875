#include "sdk/base/task_runner.h"

#include <utility>

#include "sdk/base/task_queue.h"

namespace tarn_base {

namespace internal {

namespace {
// The runner whose Run loop owns the calling thread. A raw pointer: the loop keeps the
// runner alive for as long as it is set.
thread_local TaskRunner* g_current_runner = nullptr;
}  // namespace

void SetCurrentTaskRunner(TaskRunner* runner) { g_current_runner = runner; }

TaskRunner* CurrentTaskRunner() { return g_current_runner; }

}  // namespace internal

DelayedTaskHandle::DelayedTaskHandle(scoped_refptr<TaskRunner> runner, uint64_t task_id)
    : runner_(std::move(runner)), task_id_(task_id) {}

DelayedTaskHandle::~DelayedTaskHandle() = default;

void DelayedTaskHandle::CancelTask() {
  if (!runner_) return;
  // Drop the reference first: cancelling destroys the task, whose destructor may in turn
  // reach this handle's owner.
  scoped_refptr<TaskRunner> runner = std::move(runner_);
  runner->CancelDelayedTask(task_id_);
}

scoped_refptr<TaskRunner> TaskRunner::GetCurrentDefault() {
  return scoped_refptr<TaskRunner>(internal::CurrentTaskRunner());
}

}  // namespace tarn_base
