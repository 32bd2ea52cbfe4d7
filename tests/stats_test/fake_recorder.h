// How a test writes the report in a fake recorder's place.
#ifndef TESTS_STATS_TEST_FAKE_RECORDER_H_
#define TESTS_STATS_TEST_FAKE_RECORDER_H_

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

using FakeWrite = ssize_t (*)(void* closure, const void* bytes, std::size_t length);
using FakeOutput = void (*)(FakeWrite write_piece, void* closure);

// The recorder exports `void fake_set_output(FakeOutput)`: from now on `output`
// writes the reports.
using FakeSetOutput = void (*)(FakeOutput output);

// And `void fake_set_on_alloc(FakeHook)`: called when a recorder is made.
using FakeHook = void (*)();
using FakeSetOnAlloc = void (*)(FakeHook hook);

// A program that exports `void fake_on_load()` has it called while the recorder is loaded.

#endif  // TESTS_STATS_TEST_FAKE_RECORDER_H_
