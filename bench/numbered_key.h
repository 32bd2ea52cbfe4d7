// Keys that are made from a number, so that a process can look up some of many without
// having all of them in memory.
#ifndef BENCH_NUMBERED_KEY_H_
#define BENCH_NUMBERED_KEY_H_

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>

#include <quorvane/store.h>

#include "store_fixture.h"

namespace bench {

// The numbers in an order that looks random; no two give the same.
inline std::uint64_t scrambled(std::uint64_t number) {
  number += 0x9e3779b97f4a7c15U;
  number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9U;
  number = (number ^ (number >> 27)) * 0x94d049bb133111ebU;
  return number ^ (number >> 31);
}

inline Key numbered_key(std::uint64_t number) {
  Key key(kKeySize, '\0');
  for (std::size_t at = 0; at < kKeySize; at += sizeof(number)) {
    const std::uint64_t word = scrambled(4 * number + at / sizeof(number));
    std::memcpy(key.data() + at, &word, sizeof(word));
  }
  return key;
}

// The entries of the numbers `from` to `to`, without `to`.
inline quorvane::cache::EntryMap numbered_entries(std::uint64_t from, std::uint64_t to) {
  quorvane::cache::EntryMap entries;
  for (; from < to; ++from) {
    const Key key = numbered_key(from);
    const std::string value = make_value(key);
    entries.emplace(quorvane::util::RoBuffer::copy(key.data(), key.size()),
                    std::vector{quorvane::util::RoBuffer::copy(value.data(), value.size())});
  }
  return entries;
}

// Hands all entries over in parts that fit in memory.
inline void for_each_batch(std::uint64_t entries,
                           const std::function<void(const quorvane::cache::EntryMap&)>& take) {
  constexpr std::uint64_t kBatch = 500'000;
  for (std::uint64_t from = 0; from < entries; from += kBatch) {
    take(numbered_entries(from, std::min(from + kBatch, entries)));
  }
}

}  // namespace bench

#endif  // BENCH_NUMBERED_KEY_H_
