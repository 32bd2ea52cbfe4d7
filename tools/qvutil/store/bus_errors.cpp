#include "qvutil/store/bus_errors.h"

#include <unistd.h>

#include <string_view>

#include "qvutil/output/outcome.h"

namespace quorvane::tool {
namespace {

constexpr std::string_view kText =
    "qvutil: a file was truncated while it was read, or its disk has an error\n";

void end_process(int) {
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, kText.data(), kText.size());
  _exit(static_cast<int>(Outcome::failed));
}

}  // namespace

BusErrors::BusErrors() {
  struct sigaction action {};
  action.sa_handler = &end_process;
  sigaction(SIGBUS, &action, &before_);
}

BusErrors::~BusErrors() { sigaction(SIGBUS, &before_, nullptr); }

}  // namespace quorvane::tool
