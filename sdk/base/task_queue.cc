#include "sdk/base/task_queue.h"

#include <algorithm>
#include <chrono>

namespace tarn_base {
namespace internal {

namespace {

// A real-clock sleep is cut into pieces of at most this length, so that far-future due
// times never overflow the condition variable's deadline arithmetic.
constexpr TimeDelta kMaxRealClockWait = TimeDelta::FromSeconds(3600);

// How many extracted map nodes are kept for reuse, so that a steady flow of delayed
// tasks (timer ticks) does not allocate a node per task.
constexpr size_t kMaxSpareNodes = 64;

// Dead cancelable entries are compacted away once there are this many and they
// outnumber the live ones, keeping the index small at amortized O(1) cost.
constexpr size_t kCompactCancelableAfter = 32;

}  // namespace

TaskQueue::TaskQueue(const TickClock* clock) : clock_(clock) {}

TaskQueue::~TaskQueue() = default;

void TaskQueue::AttachToClock() {
  if (attached_) return;
  attached_ = true;
  simulated_clock_ = clock_->AddWaiter(this);
}

void TaskQueue::DetachFromClock() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    accepting_ = false;
    finished_ = true;
  }
  idle_cv_.notify_all();
  if (!attached_) return;
  attached_ = false;
  clock_->RemoveWaiter(this);
}

void TaskQueue::Run() {
  SetCurrentTaskRunner(this);
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    OnceClosure task;
    if (TakeNextLocked(RunLimitLocked(), &task)) {
      running_task_ = true;
      lock.unlock();
      // Run() consumes the closure: its bound arguments are gone when it returns.
      std::move(task).Run();
      lock.lock();
      running_task_ = false;
      ++tasks_run_;
      continue;
    }
    if (quitting_) break;

    // Nothing is runnable at the current time.
    if (idle_waiters_ > 0) idle_cv_.notify_all();
    thread_waiting_ = true;
    if (simulated_clock_ || delayed_.empty()) {
      work_cv_.wait(lock);
    } else {
      TimeDelta wait =
          TimeTicks::FromMicroseconds(delayed_.begin()->first.first) - clock_->NowTicks();
      wait = std::min(wait, kMaxRealClockWait);
      if (wait.is_positive()) {
        work_cv_.wait_for(lock, std::chrono::microseconds(wait.InMicroseconds()));
      }
    }
    thread_waiting_ = false;
  }

  // Shutting down: what is left are delayed tasks that were not due at Shutdown time.
  finished_ = true;
  DelayedMap dropped;
  dropped.swap(delayed_);
  std::deque<ImmediateTask> leftover;
  leftover.swap(immediate_);
  cancelable_.clear();
  dead_cancelable_ = 0;
  spare_nodes_.clear();
  lock.unlock();
  idle_cv_.notify_all();
  // Destroyed on this thread, outside the lock: their destructors may post (and are
  // refused) or read GetCurrentDefault().
  dropped.clear();
  leftover.clear();
  SetCurrentTaskRunner(nullptr);
}

void TaskQueue::Shutdown() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (quitting_) return;
    accepting_ = false;
    quitting_ = true;
    quit_time_ = clock_->NowTicks();
  }
  work_cv_.notify_one();
}

bool TaskQueue::PostTask(const Location& from_here, OnceClosure task) {
  if (Enqueue(from_here, task, /*delayed=*/false, TimeDelta(), /*cancelable=*/false) != 0) {
    return true;
  }
  task.Reset();  // Refused: free what it bound before returning.
  return false;
}

bool TaskQueue::PostTaskWithoutWakeUp(const Location& from_here, OnceClosure task) {
  if (Enqueue(from_here, task, /*delayed=*/false, TimeDelta(), /*cancelable=*/false,
              /*wake=*/false) != 0) {
    return true;
  }
  task.Reset();
  return false;
}

bool TaskQueue::PostDelayedTask(const Location& from_here, OnceClosure task, TimeDelta delay) {
  if (Enqueue(from_here, task, /*delayed=*/true, delay, /*cancelable=*/false) != 0) return true;
  task.Reset();
  return false;
}

DelayedTaskHandle TaskQueue::PostCancelableDelayedTask(const Location& from_here, OnceClosure task,
                                                       TimeDelta delay) {
  uint64_t sequence = Enqueue(from_here, task, /*delayed=*/true, delay, /*cancelable=*/true);
  if (sequence == 0) {
    task.Reset();
    return DelayedTaskHandle();
  }
  return DelayedTaskHandle(scoped_refptr<TaskRunner>(this), sequence);
}

bool TaskQueue::RunsTasksInCurrentSequence() const { return CurrentTaskRunner() == this; }

uint64_t TaskQueue::Enqueue(const Location& from_here, OnceClosure& task, bool delayed,
                            TimeDelta delay, bool cancelable, bool wake_thread) {
  if (task.is_null()) return 0;
  uint64_t sequence = 0;
  bool wake = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!accepting_) return 0;
    sequence = next_sequence_++;
    // Read under the lock, so ready times follow sequence order.
    const TimeTicks now = clock_->NowTicks();
    if (!delayed) {
      immediate_.push_back(ImmediateTask{std::move(task), from_here, now, sequence});
      wake = thread_waiting_ && (wake_thread || simulated_clock_);
    } else {
      const TimeTicks due = delay.is_positive() ? now + delay : now;
      const DelayedKey key(due.InMicroseconds(), sequence);
      if (!spare_nodes_.empty()) {
        DelayedMap::node_type node = std::move(spare_nodes_.back());
        spare_nodes_.pop_back();
        node.key() = key;
        node.mapped() = DelayedTask{std::move(task), from_here, cancelable};
        delayed_.insert(std::move(node));
      } else {
        delayed_.emplace(key, DelayedTask{std::move(task), from_here, cancelable});
      }
      if (cancelable) cancelable_.push_back(CancelableEntry{sequence, key.first, true});
      // A sleeping thread only needs to re-plan when this became the earliest task.
      wake = thread_waiting_ && delayed_.begin()->first == key;
    }
  }
  if (wake) work_cv_.notify_one();
  return sequence;
}

void TaskQueue::CancelDelayedTask(uint64_t task_id) {
  OnceClosure doomed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    CancelableEntry* entry = FindCancelableLocked(task_id);
    if (entry == nullptr) return;  // Ran, cancelled or dropped already.
    auto it = delayed_.find(DelayedKey(entry->due_us, task_id));
    if (it != delayed_.end()) TakeDelayedLocked(it, &doomed);
    ForgetCancelableLocked(entry);
  }
  // `doomed` is destroyed here, without the lock.
}

void TaskQueue::OnClockAdvanced() {
  // Taking the lock orders this after a concurrent check-then-sleep in Run, so the
  // notification cannot fall between the check and the sleep.
  { std::lock_guard<std::mutex> lock(mutex_); }
  work_cv_.notify_one();
}

TimeTicks TaskQueue::NextDelayedRunTime() {
  std::lock_guard<std::mutex> lock(mutex_);
  // Once shutting down, tasks that are not due will never run: nothing to step to.
  if (quitting_ || finished_ || delayed_.empty()) return TimeTicks::Max();
  return TimeTicks::FromMicroseconds(delayed_.begin()->first.first);
}

bool TaskQueue::WaitUntilIdle() {
  std::unique_lock<std::mutex> lock(mutex_);
  bool waited = false;
  while (!finished_ && (running_task_ || HasRunnableLocked(RunLimitLocked()))) {
    waited = true;
    ++idle_waiters_;
    idle_cv_.wait(lock);
    --idle_waiters_;
  }
  // Tasks that ran since the previous call count too: they may have posted elsewhere,
  // so a caller looping over several queues must look at all of them again.
  if (tasks_run_ != tasks_run_at_idle_check_) {
    tasks_run_at_idle_check_ = tasks_run_;
    waited = true;
  }
  return waited;
}

TimeTicks TaskQueue::RunLimitLocked() const { return quitting_ ? quit_time_ : clock_->NowTicks(); }

bool TaskQueue::HasRunnableLocked(TimeTicks limit) const {
  if (!immediate_.empty()) return true;
  return !delayed_.empty() && delayed_.begin()->first.first <= limit.InMicroseconds();
}

bool TaskQueue::TakeNextLocked(TimeTicks limit, OnceClosure* out) {
  auto delayed_it = delayed_.begin();
  const bool delayed_ready =
      delayed_it != delayed_.end() && delayed_it->first.first <= limit.InMicroseconds();
  if (!delayed_ready) {
    if (immediate_.empty()) return false;
  } else if (immediate_.empty() ||
             delayed_it->first < DelayedKey(immediate_.front().ready.InMicroseconds(),
                                            immediate_.front().sequence)) {
    const uint64_t sequence = delayed_it->first.second;
    const bool cancelable = delayed_it->second.cancelable;
    TakeDelayedLocked(delayed_it, out);
    if (cancelable) {
      if (CancelableEntry* entry = FindCancelableLocked(sequence)) ForgetCancelableLocked(entry);
    }
    return true;
  }
  *out = std::move(immediate_.front().closure);
  immediate_.pop_front();
  return true;
}

void TaskQueue::TakeDelayedLocked(DelayedMap::iterator it, OnceClosure* out) {
  DelayedMap::node_type node = delayed_.extract(it);
  *out = std::move(node.mapped().closure);
  if (spare_nodes_.size() < kMaxSpareNodes) spare_nodes_.push_back(std::move(node));
}

TaskQueue::CancelableEntry* TaskQueue::FindCancelableLocked(uint64_t sequence) {
  auto it = std::lower_bound(
      cancelable_.begin(), cancelable_.end(), sequence,
      [](const CancelableEntry& entry, uint64_t value) { return entry.sequence < value; });
  if (it == cancelable_.end() || it->sequence != sequence || !it->live) return nullptr;
  return &*it;
}

void TaskQueue::ForgetCancelableLocked(CancelableEntry* entry) {
  entry->live = false;
  ++dead_cancelable_;
  if (dead_cancelable_ >= kCompactCancelableAfter && dead_cancelable_ * 2 > cancelable_.size()) {
    cancelable_.erase(std::remove_if(cancelable_.begin(), cancelable_.end(),
                                     [](const CancelableEntry& entry) { return !entry.live; }),
                      cancelable_.end());
    dead_cancelable_ = 0;
  }
}

}  // namespace internal
}  // namespace tarn_base
