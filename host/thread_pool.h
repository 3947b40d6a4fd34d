// A fixed set of worker threads fed from one queue. Threads are made once, when
// the pool is built, so a run never pays for thread creation.
#pragma once

#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

namespace rawfx::host {

class ThreadPool {
 public:
  explicit ThreadPool(int threads);
  ~ThreadPool();  // runs what is still queued, then joins the workers
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // Tasks whose nodes the caller has made: queuing them allocates nothing, so
  // work whose tasks could be made cannot fail to be handed over.
  using Tasks = std::list<std::function<void()>>;
  void Submit(Tasks tasks) noexcept;
  void Submit(std::function<void()> task);
  int size() const { return static_cast<int>(workers_.size()); }

  // True on a worker of any pool: a run started there must not wait for the
  // pool it occupies.
  static bool OnWorkerThread();

 private:
  void Work();

  std::mutex mutex_;
  std::condition_variable wake_;
  Tasks queue_;
  bool stopping_ = false;
  std::vector<std::thread> workers_;
};

}  // namespace rawfx::host
