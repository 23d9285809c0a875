// A named OS thread that runs one TaskRunner.
//
//   tarn_base::Thread thread("recording");
//   if (!thread.Start()) return;   // the OS refused to create it (logged)
//   thread.task_runner()->PostTask(FROM_HERE, std::move(task));
//   thread.Stop();                 // runs what was posted before, then joins
//
// The name is given to the OS (truncated to 15 bytes, the Linux limit), so it shows in
// /proc/<pid>/task/<tid>/comm, top and debuggers, and in every log line the thread
// writes. Start, Stop and the destructor are called from one owning thread, never
// from the thread itself.
#ifndef SDK_BASE_THREAD_H_
#define SDK_BASE_THREAD_H_

#include <sys/types.h>

#include <memory>
#include <string>

#include "sdk/base/ref_counted.h"
#include "sdk/base/task_runner.h"
#include "sdk/base/time.h"

namespace tarn_base {

class Thread {
 public:
  // The thread's task runner measures delayed tasks on `clock`; by default the clock
  // that DefaultTickClock() returns when the Thread is constructed.
  explicit Thread(std::string name);
  Thread(std::string name, const TickClock* clock);
  ~Thread();  // Stop()s.

  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Creates the OS thread. Returns false, with an error log naming the thread and the
  // OS error, when it cannot be created; task_runner() then stays null. Calling Start
  // on a running thread returns true and does nothing.
  bool Start();

  // Stops accepting tasks, runs every task posted before this call (delayed tasks that
  // are not due by then are destroyed without running), ends the thread and returns
  // after it ended. Later posts to task_runner() return false. Idempotent.
  void Stop();

  bool IsRunning() const;
  const std::string& name() const { return name_; }

  // Null before a successful Start(). Stays valid (but refuses tasks) after Stop().
  scoped_refptr<TaskRunner> task_runner() const;

  // The OS thread id (as in /proc/<pid>/task/<tid>), or 0 when not running.
  pid_t tid() const;

 private:
  class Impl;
  std::string name_;
  const TickClock* clock_;
  std::unique_ptr<Impl> impl_;
};

// The name of the calling thread: the Thread name for threads made by Thread, else the
// name the OS knows it by.
std::string CurrentThreadName();

// While alive, Thread::Start fails as if the OS could not create the thread.
class ScopedThreadStartFailureForTesting {
 public:
  ScopedThreadStartFailureForTesting();
  ~ScopedThreadStartFailureForTesting();
  ScopedThreadStartFailureForTesting(const ScopedThreadStartFailureForTesting&) = delete;
  ScopedThreadStartFailureForTesting& operator=(const ScopedThreadStartFailureForTesting&) = delete;
};

}  // namespace tarn_base

#endif  // SDK_BASE_THREAD_H_
