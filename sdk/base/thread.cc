#include "sdk/base/thread.h"

#include <errno.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "sdk/base/errno_text.h"
#include "sdk/base/logging.h"
#include "sdk/base/task_queue.h"

namespace tarn_base {

namespace {

constexpr tarn_logging::LogConfig kLogConfig{"base"};

// Linux keeps at most 15 bytes of a thread name (16 with the terminator).
constexpr size_t kMaxOsThreadNameLength = 15;

// The name given to Thread, for threads that Thread created. Empty on other threads.
thread_local std::string g_thread_name;

std::atomic<int> g_start_failures_for_testing{0};

}  // namespace

// The running OS thread behind a Thread: created by Start, joined by Stop, owned by the
// Thread. Start waits until the new thread has published its tid.
class Thread::Impl {
 public:
  Impl(std::string name, scoped_refptr<internal::TaskQueue> queue)
      : name_(std::move(name)), queue_(std::move(queue)) {}

  int Create() {
    queue_->AttachToClock();
    int error = g_start_failures_for_testing.load() > 0 ? EAGAIN : 0;
    if (error == 0) error = pthread_create(&handle_, nullptr, &Impl::ThreadMain, this);
    if (error != 0) {
      queue_->DetachFromClock();
      return error;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    started_cv_.wait(lock, [this] { return started_; });
    return 0;
  }

  void Join() {
    if (joined_) return;
    queue_->Shutdown();
    pthread_join(handle_, nullptr);
    queue_->DetachFromClock();
    joined_ = true;
    tid_.store(0, std::memory_order_relaxed);
  }

  bool IsCurrentThread() const { return pthread_equal(pthread_self(), handle_) != 0; }
  bool joined() const { return joined_; }
  pid_t tid() const { return tid_.load(std::memory_order_relaxed); }
  const scoped_refptr<internal::TaskQueue>& queue() const { return queue_; }

 private:
  static void* ThreadMain(void* arg) {
    Impl* self = static_cast<Impl*>(arg);
    g_thread_name = self->name_;
    pthread_setname_np(pthread_self(), self->name_.substr(0, kMaxOsThreadNameLength).c_str());
    self->tid_.store(static_cast<pid_t>(syscall(SYS_gettid)), std::memory_order_relaxed);
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->started_ = true;
    }
    self->started_cv_.notify_one();
    // The Impl lives until after Join, so the queue outlives Run.
    self->queue_->Run();
    return nullptr;
  }

  const std::string name_;
  const scoped_refptr<internal::TaskQueue> queue_;
  pthread_t handle_{};
  std::atomic<pid_t> tid_{0};
  bool joined_ = false;  // Owner thread only.

  std::mutex mutex_;
  std::condition_variable started_cv_;
  bool started_ = false;  // Guarded by mutex_.
};

Thread::Thread(std::string name) : Thread(std::move(name), DefaultTickClock()) {}

Thread::Thread(std::string name, const TickClock* clock) : name_(std::move(name)), clock_(clock) {}

Thread::~Thread() { Stop(); }

bool Thread::Start() {
  if (IsRunning()) return true;
  auto impl = std::make_unique<Impl>(name_, MakeRefCounted<internal::TaskQueue>(clock_));
  const int error = impl->Create();
  if (error != 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot start thread \"" << name_ << "\": " << ErrnoText(error);
    return false;
  }
  // A restarted thread replaces the stopped one; its old runner keeps refusing tasks.
  impl_ = std::move(impl);
  return true;
}

void Thread::Stop() {
  if (!impl_ || impl_->joined()) return;
  if (impl_->IsCurrentThread()) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "thread \"" << name_ << "\" cannot stop itself";
    return;
  }
  impl_->Join();
}

bool Thread::IsRunning() const { return impl_ && !impl_->joined(); }

scoped_refptr<TaskRunner> Thread::task_runner() const {
  if (!impl_) return nullptr;
  return impl_->queue();
}

pid_t Thread::tid() const { return impl_ ? impl_->tid() : 0; }

std::string CurrentThreadName() {
  if (!g_thread_name.empty()) return g_thread_name;
  char buffer[64] = {};
  if (pthread_getname_np(pthread_self(), buffer, sizeof(buffer)) != 0) return std::string();
  return buffer;
}

ScopedThreadStartFailureForTesting::ScopedThreadStartFailureForTesting() {
  g_start_failures_for_testing.fetch_add(1);
}

ScopedThreadStartFailureForTesting::~ScopedThreadStartFailureForTesting() {
  g_start_failures_for_testing.fetch_sub(1);
}

}  // namespace tarn_base
