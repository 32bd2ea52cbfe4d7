#include "inherited.h"

#include <sys/mman.h>
#include <unistd.h>

#include "kept_words.h"
#include "metric.h"

namespace circmetrics {
namespace {

// Before the words of a metric come its address and their number.
constexpr std::size_t kHeadSize = 2;

// Returns how many words there are, whether or not they fit.
std::size_t keep_all(std::span<std::uint64_t> room) {
  KeptWords words(room);
  for (const Metric* metric = Metric::newest(); metric != nullptr; metric = metric->older()) {
    words.add(reinterpret_cast<std::uint64_t>(metric));
    const std::size_t number = words.size();
    words.add(0);
    metric->keep(words);
    words.set(number, words.size() - number - 1);
  }
  return words.size();
}

}  // namespace

constinit pid_t Inherited::g_owner = 0;
constinit Inherited::Pages Inherited::g_pages{nullptr, 0};

void Inherited::begin_first() {
  if (g_owner == 0) {
    g_owner = getpid();
  }
}

// Unless all words are kept, the owner stays the parent, and so the origin unknown. They may be
// more than were counted: an earlier fork handler may have started a thread.
void Inherited::begin_child() {
  if (g_owner == 0) {
    return;
  }
  if (g_pages.words != nullptr) {
    munmap(g_pages.words, g_pages.size * sizeof *g_pages.words);
  }
  g_pages = make_pages(keep_all({}));
  if (g_pages.words != nullptr && keep_all({g_pages.words, g_pages.size}) == g_pages.size) {
    g_owner = getpid();
  }
}

Inherited::Pages Inherited::make_pages(std::size_t words) {
  // All at once: a page fault for each page takes longer than the copying.
  void* const made = mmap(nullptr, words * sizeof(std::uint64_t), PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
  return made == MAP_FAILED ? Pages{nullptr, 0} : Pages{static_cast<std::uint64_t*>(made), words};
}

Inherited::Origin Inherited::origin() {
  if (g_owner != 0 && g_owner != getpid()) {
    return Origin::kUnknown;
  }
  return g_pages.words != nullptr ? Origin::kKept : Origin::kNone;
}

Inherited::Values Inherited::values() {
  Values values;
  for (std::size_t at = 0; at < g_pages.size; at += kHeadSize + g_pages.words[at + 1]) {
    const std::uint64_t* const head = g_pages.words + at;
    if (head[1] != 0) {
      values.emplace(reinterpret_cast<const Metric*>(head[0]),
                     std::span(head + kHeadSize, head[1]));
    }
  }
  return values;
}

}  // namespace circmetrics
