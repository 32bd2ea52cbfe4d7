#include <quorvane/fault.h>
#include <quorvane/module.h>
#include <quorvane/pid_file.h>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr unsigned kSeverity = 2;

// An array, since a handler of SIGQUIT may remove the file.
char g_path[PATH_MAX];

// The process that owns the file at g_path; 0 when there is no file. A child made by a raw
// clone finds its parent's id here, and so leaves the file alone.
std::atomic<pid_t> g_owner{0};

// -1 also when the path doesn't fit: open would refuse one that long, and a record is too
// short to show its end.
int open_file(const char* root, pid_t pid) {
  // No separator between root and name.
  // Kept: docs/compatibility.md
  const int length = std::snprintf(g_path, sizeof(g_path), "%sqv.%d", root, pid);
  return length < static_cast<int>(sizeof(g_path))
             ? open(g_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)
             : -1;
}

// Called at load and in a child, which leaves its parent's file alone.
void write_file() {
  g_owner = 0;
  const char* const root = secure_getenv("QV_PIDFILE_ROOT");
  if (root == nullptr || *root == '\0') {
    return;
  }
  const pid_t pid = getpid();
  const int fd = open_file(root, pid);
  if (qv_fault_expect(quorvane::module::Module::get_internal(), kSeverity, fd >= 0,
                      "Failed to open QV_PIDFILE_ROOT pid file %s", g_path)) {
    // On a full disk the file stays empty.
    // Kept: docs/compatibility.md
    dprintf(fd, "%d\n", pid);
    close(fd);
    g_owner = pid;
  }
}

bool set_up() {
  write_file();
  const bool goes_at_exit = std::atexit(&qv_remove_sigquit_pidfile) == 0;
  return pthread_atfork(nullptr, nullptr, &write_file) == 0 && goes_at_exit;
}

[[maybe_unused]] const bool g_is_set_up = set_up();

// Exit handlers registered before this library was loaded run after its own, and may fork:
// this removes the file of such a child.
__attribute__((destructor)) void remove_late_childs_file() { qv_remove_sigquit_pidfile(); }

}  // namespace

void qv_remove_sigquit_pidfile() {
  pid_t owner = getpid();
  // Forgets the file even if unlink fails.
  // Kept: docs/compatibility.md
  if (g_owner.compare_exchange_strong(owner, 0)) {
    const bool is_gone = unlink(g_path) == 0 || errno == ENOENT;
    qv_fault_expect(quorvane::module::Module::get_internal(), kSeverity, is_gone,
                    "Failed to unlink QV_PIDFILE_ROOT pid file %s", g_path);
  }
}
