// Cost of handing a video-frame-sized task from a producer thread to a worker Thread.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "sdk/base/callback.h"
#include "sdk/base/thread.h"

namespace {

constexpr int kBatch = 256;

struct Frame {
  explicit Frame(size_t size) : data(size, 0x5a) {}
  std::vector<uint8_t> data;
};

// Counts frames consumed on the worker; the producer waits for a target count.
class Consumer {
 public:
  void Consume(std::unique_ptr<Frame> frame) {
    benchmark::DoNotOptimize(frame->data.data());
    std::lock_guard<std::mutex> lock(mutex_);
    if (++consumed_ >= target_) done_.notify_one();
  }
  void WaitFor(int64_t target) {
    std::unique_lock<std::mutex> lock(mutex_);
    target_ = target;
    done_.wait(lock, [&] { return consumed_ >= target_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  int64_t consumed_ = 0;  // Guarded by mutex_.
  int64_t target_ = 0;    // Guarded by mutex_.
};

std::vector<std::unique_ptr<Frame>> MakeFrames(size_t size) {
  std::vector<std::unique_ptr<Frame>> frames;
  frames.reserve(kBatch);
  for (int i = 0; i < kBatch; ++i) frames.push_back(std::make_unique<Frame>(size));
  return frames;
}

// Producer side only: bind + post. Frames are made, and the worker drained, with the
// timer paused.
void BM_PostFrameTask(benchmark::State& state) {
  const size_t frame_size = static_cast<size_t>(state.range(0));
  tarn_base::Thread worker("bench-worker");
  if (!worker.Start()) return state.SkipWithError("cannot start thread");
  tarn_base::scoped_refptr<tarn_base::TaskRunner> runner = worker.task_runner();
  Consumer consumer;
  int64_t posted = 0;
  while (state.KeepRunningBatch(kBatch)) {
    state.PauseTiming();
    consumer.WaitFor(posted);
    std::vector<std::unique_ptr<Frame>> frames = MakeFrames(frame_size);
    state.ResumeTiming();
    for (auto& frame : frames) {
      runner->PostTask(FROM_HERE,
                       tarn_base::BindOnce(&Consumer::Consume, tarn_base::Unretained(&consumer),
                                           std::move(frame)));
    }
    posted += kBatch;
  }
  consumer.WaitFor(posted);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PostFrameTask)->Arg(4096)->UseRealTime();

// Round trip: post a batch and wait until the worker has run all of it.
void BM_PostFrameRoundTrip(benchmark::State& state) {
  const size_t frame_size = static_cast<size_t>(state.range(0));
  tarn_base::Thread worker("bench-worker");
  if (!worker.Start()) return state.SkipWithError("cannot start thread");
  tarn_base::scoped_refptr<tarn_base::TaskRunner> runner = worker.task_runner();
  Consumer consumer;
  int64_t posted = 0;
  while (state.KeepRunningBatch(kBatch)) {
    state.PauseTiming();
    std::vector<std::unique_ptr<Frame>> frames = MakeFrames(frame_size);
    state.ResumeTiming();
    for (auto& frame : frames) {
      runner->PostTask(FROM_HERE,
                       tarn_base::BindOnce(&Consumer::Consume, tarn_base::Unretained(&consumer),
                                           std::move(frame)));
    }
    posted += kBatch;
    consumer.WaitFor(posted);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PostFrameRoundTrip)->Arg(4096)->UseRealTime();

}  // namespace
