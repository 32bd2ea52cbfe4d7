// What a test and the fake recorder know of each other.
#ifndef TESTS_STATS_TEST_FAKE_RECORDER_H_
#define TESTS_STATS_TEST_FAKE_RECORDER_H_

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

using FakeWrite = ssize_t (*)(void* closure, const void* bytes, std::size_t length);
using FakeOutput = void (*)(FakeWrite write_piece, void* closure);

// The recorder exports `void fake_set_output(FakeOutput)`. From then on, `output` writes
// the reports.
using FakeSetOutput = void (*)(FakeOutput output);

// It also exports `void fake_set_on_alloc(FakeHook)`, whose hook runs when a recorder is made.
using FakeHook = void (*)();
using FakeSetOnAlloc = void (*)(FakeHook hook);

// If the program exports `void fake_on_load()`, the recorder calls it while it is loaded.

#endif  // TESTS_STATS_TEST_FAKE_RECORDER_H_
