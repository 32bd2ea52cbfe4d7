// What happens when a mapped file loses bytes.
#ifndef TOOLS_QVUTIL_STORE_BUS_ERRORS_H_
#define TOOLS_QVUTIL_STORE_BUS_ERRORS_H_

#include <csignal>

namespace quorvane::tool {

// As long as it lives, SIGBUS ends the process as failed, with a text. The kernel sends it when
// a mapped file was truncated, or its disk can't be read.
class BusErrors {
 public:
  BusErrors();
  ~BusErrors();
  BusErrors(const BusErrors&) = delete;
  BusErrors& operator=(const BusErrors&) = delete;

 private:
  struct sigaction before_ {};
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_BUS_ERRORS_H_
