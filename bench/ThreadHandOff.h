// The floor under every measurement that crosses threads: one thread hands a request to another
// through a mutex and a condition variable, the other answers the same way, and the first wakes.
// Any delivery from a service thread to a client queue and back to the benchmark's thread pays
// at least this, so a ratio against it says what our own code adds.
//
// Each benchmark program that measures a thread-crossing delivery registers
// BM_ThreadHandOffRoundTrip, so measurement and baseline come from the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace harkwell::bench {

// A worker thread that answers each request as soon as it sees it. Not copyable; the destructor
// stops and joins the worker.
class ThreadHandOff {
 public:
  ThreadHandOff() : worker_([this] { answerUntilStopped(); }) {}
  ~ThreadHandOff() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    requested_.notify_one();
    worker_.join();
  }
  ThreadHandOff(const ThreadHandOff&) = delete;
  ThreadHandOff& operator=(const ThreadHandOff&) = delete;

  // Hands one request to the worker and waits until it has answered.
  void roundTrip() {
    std::unique_lock lock(mutex_);
    ++requests_;
    requested_.notify_one();
    answered_.wait(lock, [this] { return answers_ == requests_; });
  }

 private:
  void answerUntilStopped() {
    std::unique_lock lock(mutex_);
    for (;;) {
      requested_.wait(lock, [this] { return stopping_ || answers_ != requests_; });
      if (stopping_) return;
      answers_ = requests_;
      answered_.notify_one();
    }
  }

  std::mutex mutex_;
  std::condition_variable requested_;
  std::condition_variable answered_;
  std::uint64_t requests_ = 0;
  std::uint64_t answers_ = 0;
  bool stopping_ = false;
  std::thread worker_;  // last: it starts once everything it reads is initialised
};

inline void BM_ThreadHandOffRoundTrip(benchmark::State& state) {
  ThreadHandOff handOff;
  for (auto _ : state) handOff.roundTrip();
}

}  // namespace harkwell::bench
