// Worker processes that share one block of counts with their parent.
#ifndef FINGERPRINT_WORKER_POOL_H_
#define FINGERPRINT_WORKER_POOL_H_

#include <sys/types.h>

#include <functional>
#include <vector>

#include "fingerprint/counts.h"

namespace fingerprint {

// Create it, start the workers, wait for them.
class WorkerPool {
 public:
  WorkerPool();
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  Counts& counts() { return *counts_; }

  // Forks `jobs` workers; number i of them runs work(i) and exits. False when
  // fewer could be started; then the share of the missing ones is not done.
  bool start(unsigned jobs, const std::function<void(unsigned)>& work);

  // Asks the workers to end early, once however often it is called.
  void interrupt();

  // Returns when all workers have ended; meanwhile calls `tick` every now and
  // then. False when one of them failed.
  bool wait(const std::function<void()>& tick);

 private:
  Counts* counts_;
  int alive_read_ = -1;  // reaches its end when the last worker has ended
  int alive_write_ = -1;
  std::vector<pid_t> workers_;
  bool interrupted_ = false;
};

}  // namespace fingerprint

#endif  // FINGERPRINT_WORKER_POOL_H_
