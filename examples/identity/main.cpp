// identity: every process has a UUID for as long as it lives, and a child's differs from
// its parent's. Nothing needs to be set up.
#include <quorvane/uuid.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace {

void introduce(const char* who) {
  const std::string mine = quorvane::uuid_unparse(quorvane::get_my_uuid());
  std::printf("%-10s %s\n", who, mine.c_str());
  std::fflush(stdout);  // a child must not print it again
}

// Forks a child and waits for it. False when fork or the child failed.
bool introduce_child(const char* who, const char* whose_child) {
  const pid_t child = fork();
  if (child == 0) {
    introduce(who);
    _exit(whose_child == nullptr || introduce_child(whose_child, nullptr) ? 0 : 1);
  }
  int status = 1;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace

int main() {
  introduce("parent");
  if (!introduce_child("child", "grandchild")) {
    std::perror("identity: no child");
    return 1;
  }
  introduce("parent");
}
