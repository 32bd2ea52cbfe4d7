// What the tracer does when it can't write.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/temp_dir.h"
#include "support/trace.h"

using test::Ran;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kVariable[] = "QV_TRACE_FILE";

std::string record(const std::string& path, const std::string& why) {
  return "WARN Couldn't write the trace " + path + ", so it ends: " + why;
}

SCENARIO(report_often) {
  for (std::uint64_t number = 0; number < 10'000; ++number) {
    test::report_append(number);
  }
  return test::wait_for(test::in_child([] {
    test::report_append(0);
    return 0;
  }));
}

Ran run(const std::string& file) { return test::run_scenario("report_often", {{kVariable, file}}); }

class TraceRefusals : public testing::Test {
 protected:
  std::string file() const { return dir_.file("trace.json"); }

  // One record in spite of many events, and nothing else.
  void expect_end(const std::string& path, const std::string& why) const {
    const Ran ran = run(path);
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_THAT(ran.messages(), ElementsAre(record(path, why)));
    EXPECT_EQ(ran.out + ran.err, "");
  }

  test::TempDir dir_;
};

TEST_F(TraceRefusals, AFullDiskEndsTheTraceWithOneRecord) {
  expect_end("/dev/full", "No space left on device");
}

TEST_F(TraceRefusals, AMissingDirectoryEndsTheTraceWithOneRecord) {
  expect_end(dir_.file("none/trace.json"), "No such file or directory");
  EXPECT_THAT(test::names_in(dir_.path()), IsEmpty());
}

TEST_F(TraceRefusals, ADirectoryIsNoTrace) { expect_end(dir_.path(), "Is a directory"); }

TEST_F(TraceRefusals, AFifoWithoutAReaderKeepsNobodyWaiting) {
  ASSERT_EQ(mkfifo(file().c_str(), 0644), 0);
  expect_end(file(), "it is no file");
}

TEST_F(TraceRefusals, AFileOfSomethingElseStaysAsItIs) {
  const std::string start = "[{\"ph\":\"M\",\"pid\":";
  for (const std::string& text : std::vector<std::string>{
           "x", "[", "data\nof somebody", "[1,\n", start.substr(1) + "}\n", start + "1}\nnot\nours",
           start + "1}\n]]\n", start + std::string(5000, 'x')}) {
    test::write_file(file(), text);
    expect_end(file(), "it is no trace");
    EXPECT_EQ(test::read_file(file()), text);
  }
}

TEST_F(TraceRefusals, ANameThatIsTooLongEndsTheTraceWithOneRecord) {
  const std::string record =
      "WARN Couldn't write the trace QV_TRACE_FILE, so it ends: the name is too long";
  for (const std::string& path : {"/" + std::string(5000, 'x'), std::string(4095, 'x')}) {
    const Ran ran = run(path);
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_THAT(ran.messages(), ElementsAre(record));
  }
}

TEST_F(TraceRefusals, WithoutTheLibraryTheRecordGoesToStandardError) {
  const Ran ran = test::run_program(QV_TRACED_ALONE, {}, {{kVariable, "/dev/full"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.err, "Couldn't write the trace /dev/full, so it ends: No space left on device\n");
  EXPECT_TRUE(test::run_program(QV_TRACED_ALONE, {}, {{kVariable, file()}}).exited_with(0));
  EXPECT_EQ(test::spans_in(file()).size(), 2U);
}

// The signal would end the program.
SCENARIO(report_with_a_limit_for_files) {
  const rlimit limit{10'000, 10'000};
  setrlimit(RLIMIT_FSIZE, &limit);
  for (std::uint64_t number = 0; number < 10'000; ++number) {
    test::report_append(number);
  }
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, SIGXFSZ);
}

TEST_F(TraceRefusals, AtTheLimitForFilesTheWholeLinesStayAndTheProgramGoesOn) {
  const Ran ran = test::run_scenario("report_with_a_limit_for_files", {{kVariable, file()}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre(record(file(), "File too large")));
  const auto bytes = test::bytes_in(test::spans_in(file()));
  EXPECT_GT(bytes.size(), 50U);
  EXPECT_LT(bytes.size(), 100U);
  EXPECT_EQ(bytes, test::numbers_from_0(bytes.size()));
}

// --- calls that the kernel refuses ---

constexpr int kOpenFlags = O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

SCENARIO(report_after_a_refusal) {
  const std::string& call = arguments.at(0);
  if (call == "open") {
    test::refuse(SYS_openat, EMFILE, test::When{2, kOpenFlags});
  } else if (call == "fstat") {
    const test::When of_it{0, test::next_descriptor()};
    test::refuse(SYS_newfstatat, EIO, of_it);
    test::refuse(SYS_fstat, EIO, of_it);
  } else if (call == "flock") {
    test::refuse(SYS_flock, ENOLCK);
  } else if (call == "pread") {
    test::refuse(SYS_pread64, EIO, test::When{0, test::next_descriptor()});
  } else if (call == "ftruncate") {
    test::refuse(SYS_ftruncate, EPERM);
  } else {
    test::refuse_writes_to_the_next_file();
  }
  for (std::uint64_t number = 0; number < 2000; ++number) {
    test::report_append(number);
  }
  return 0;
}

struct Refusal {
  std::string call;
  std::string before;  // what the file has
  std::string why;
};

TEST_F(TraceRefusals, ARefusedCallEndsTheTraceWithOneRecordAndLeavesTheFileAsItIs) {
  const std::string torn = "[{\"ph\":\"M\",\"pid\":1}\n,{";
  for (const Refusal& refusal :
       {Refusal{"open", "", "Too many open files"}, Refusal{"fstat", "", "Input/output error"},
        Refusal{"pread", torn, "Input/output error"},
        Refusal{"ftruncate", torn, "Operation not permitted"},
        Refusal{"write", "", "No space left on device"}}) {
    test::write_file(file(), refusal.before);
    const Ran ran =
        test::run_scenario("report_after_a_refusal", {{kVariable, file()}}, {refusal.call});
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_THAT(ran.messages(), ElementsAre(record(file(), refusal.why)));
    EXPECT_EQ(test::read_file(file()), refusal.before);
  }
}

TEST_F(TraceRefusals, WhereFilesCannotBeLockedTheTraceIsWritten) {
  const Ran ran = test::run_scenario("report_after_a_refusal", {{kVariable, file()}}, {"flock"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), IsEmpty());
  EXPECT_EQ(test::spans_in(file()).size(), 2000U);
}

SCENARIO(report_while_the_disk_fills_up) {
  const test::When to_it{0, test::next_descriptor()};
  test::report_append(0);
  test::refuse(SYS_write, ENOSPC, to_it);
  for (std::uint64_t number = 1; number < 2000; ++number) {
    test::report_append(number);
  }
  return 0;
}

TEST_F(TraceRefusals, WhenTheDiskFillsUpWhatIsWrittenStays) {
  const Ran ran = test::run_scenario("report_while_the_disk_fills_up", {{kVariable, file()}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre(record(file(), "No space left on device")));
  EXPECT_THAT(test::bytes_in(test::spans_in(file())), ElementsAre(0));
}

#ifndef QV_SANITIZED  // AddressSanitizer maps as much in the same way
// The tracer asks for its memory when it is loaded: so this program refuses that to another.
SCENARIO(run_without_memory_for_buffers) {
  test::refuse(SYS_mmap, ENOMEM, test::When{1, 128 * 65'536},
               test::When{3, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE});
  const Ran ran = test::run_scenario("report_often", {{kVariable, arguments.at(0)}});
  return ran.exited_with(0) && ran.messages().empty() ? 0 : 1;
}

TEST_F(TraceRefusals, WithoutMemoryForBuffersEachEventIsWrittenAtOnce) {
  EXPECT_TRUE(test::run_scenario("run_without_memory_for_buffers", {}, {file()}).exited_with(0));
  EXPECT_EQ(test::bytes_in(test::spans_in(file())), test::numbers_from_0(10'000));
}
#endif

SCENARIO(run_in_a_directory_that_is_gone) {
  const test::TempDir dir;
  const std::string gone = dir.file("gone");
  if (mkdir(gone.c_str(), 0755) != 0 || chdir(gone.c_str()) != 0 || rmdir(gone.c_str()) != 0) {
    return 1;
  }
  std::printf("%s",
              test::run_program(QV_TRACED_ALONE, {}, {{kVariable, "trace.json"}}).err.c_str());
  return 0;
}

TEST_F(TraceRefusals, ARelativeNameNeedsADirectory) {
  const Ran ran = test::run_scenario("run_in_a_directory_that_is_gone");
  EXPECT_EQ(ran.out,
            "Couldn't write the trace trace.json, so it ends: No such file or directory\n");
}

// --- one writer ---

// Another process of the same id: in a container, say.
SCENARIO(report_while_others_have_both_names) {
  const std::string name = arguments.at(0);
  const std::string second = name + "." + std::to_string(getpid());
  const bool is_held = test::wait_for(test::in_child([&] {
                         test::report_append(0);
                         return 0;
                       })) == 0;
  for (const std::string& held : {name, second}) {
    const int fd = open(held.c_str(), O_RDWR | O_CREAT, 0644);
    if (!is_held || fd == -1 || flock(fd, LOCK_EX | LOCK_NB) != 0) {
      return 1;
    }
  }
  test::report_append(1);
  std::printf("%s", second.c_str());
  return 0;
}

TEST_F(TraceRefusals, AFileHasOneWriter) {
  const Ran ran =
      test::run_scenario("report_while_others_have_both_names", {{kVariable, file()}}, {file()});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre(record(ran.out, "another process writes to it")));
  EXPECT_THAT(test::bytes_in(test::spans_in(file())), ElementsAre(0));
  EXPECT_EQ(test::read_file(ran.out), "");
}

}  // namespace
