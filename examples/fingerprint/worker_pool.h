// Worker processes that share one block of counts with their parent.
#ifndef FINGERPRINT_WORKER_POOL_H_
#define FINGERPRINT_WORKER_POOL_H_

#include <sys/types.h>

#include <functional>
#include <vector>

#include "fingerprint/counts.h"

namespace fingerprint {

// Create the pool, start the workers, then wait for them.
class WorkerPool {
 public:
  WorkerPool();
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  Counts& counts() { return *counts_; }

  // Forks `jobs` workers; worker i runs work(i) and exits. False when fewer could be
  // started; the work of the missing ones is not done.
  bool start(unsigned jobs, const std::function<void(unsigned)>& work);

  // Asks the workers to end early. Later calls do nothing.
  void interrupt();

  // Returns when all workers have ended; meanwhile calls `tick` now and then. False when
  // a worker failed.
  bool wait(const std::function<void()>& tick);

 private:
  Counts* counts_;
  int alive_read_ = -1;  // at end of file when all workers have ended
  int alive_write_ = -1;
  std::vector<pid_t> workers_;
  bool interrupted_ = false;
};

}  // namespace fingerprint

#endif  // FINGERPRINT_WORKER_POOL_H_
