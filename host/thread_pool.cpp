#include "host/thread_pool.h"

#include <algorithm>

namespace rawfx::host {

namespace {
thread_local bool tOnWorker = false;
}  // namespace

ThreadPool::ThreadPool(int threads) {
  const int count = std::max(threads, 1);
  workers_.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) workers_.emplace_back([this] { Work(); });
}

ThreadPool::~ThreadPool() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (std::thread& worker : workers_) worker.join();
}

void ThreadPool::Submit(Tasks tasks) noexcept {
  {
    std::lock_guard lock(mutex_);
    queue_.splice(queue_.end(), tasks);
  }
  wake_.notify_all();
}

void ThreadPool::Submit(std::function<void()> task) {
  Tasks one;
  one.push_back(std::move(task));
  Submit(std::move(one));
}

bool ThreadPool::OnWorkerThread() { return tOnWorker; }

void ThreadPool::Work() {
  tOnWorker = true;
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;  // stopping, and nothing left to run
      task = std::move(queue_.front());
      queue_.pop_front();
    }
    task();
  }
}

}  // namespace rawfx::host
