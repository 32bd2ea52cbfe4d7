#include "fingerprint/complaint.h"

#include <unistd.h>

#include <system_error>

namespace fingerprint {
namespace {

bool on_terminal() {
  static const bool terminal = isatty(STDERR_FILENO) == 1;
  return terminal;
}

// A failure is ignored: standard error was the only place to report it.
void put(const std::string& text) {
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
}

const std::string WIPE = "\r\033[K";

}  // namespace

void complain(const std::string& what) {
  put((on_terminal() ? WIPE : "") + "fingerprint: " + what + "\n");
}

std::string with_errno(const std::string& path, int error) {
  return path + ": " + std::generic_category().message(error);
}

void show_progress(const std::string& text) {
  if (on_terminal()) {
    put(WIPE + text);
  }
}

}  // namespace fingerprint
