// A process of the same program that does one step after another when it is told to.
#ifndef BENCH_OTHER_PROCESS_H_
#define BENCH_OTHER_PROCESS_H_

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace bench {

// The process runs main() with arguments of its own. It waits for an order before each step
// and reports a number after it.
class OtherProcess {
 public:
  explicit OtherProcess(const std::vector<std::string>& arguments) {
    int orders[2];
    int reports[2];
    check(pipe2(orders, O_CLOEXEC) == 0 && pipe2(reports, O_CLOEXEC) == 0);
    start(arguments, orders[0], reports[1]);
    close(orders[0]);
    close(reports[1]);
    orders_ = orders[1];
    reports_ = reports[0];
  }
  ~OtherProcess() {
    close(orders_);
    close(reports_);
    waitpid(id_, nullptr, 0);
  }
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;

  void order() const { check(write(orders_, "", 1) == 1); }
  double report() const {
    double number = 0;
    check(read(reports_, &number, sizeof(number)) == sizeof(number));
    return number;
  }

  // In the process itself. It ends when no order follows.
  static void wait_for_order() {
    char order;
    if (read(STDIN_FILENO, &order, 1) != 1) {
      _exit(0);
    }
  }
  static void send(double number) {
    check(write(STDOUT_FILENO, &number, sizeof(number)) == sizeof(number));
  }

 private:
  void start(const std::vector<std::string>& arguments, int orders, int reports) {
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) {
      pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, orders, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, reports, STDOUT_FILENO);
    check(posix_spawn(&id_, "/proc/self/exe", &actions, nullptr, pointers.data(), environ) == 0);
    posix_spawn_file_actions_destroy(&actions);
  }

  static void check(bool holds) {
    if (!holds) {
      std::abort();
    }
  }

  pid_t id_ = -1;
  int orders_ = -1;
  int reports_ = -1;
};

}  // namespace bench

#endif  // BENCH_OTHER_PROCESS_H_
