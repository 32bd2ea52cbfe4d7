// What the user asked for.
#ifndef FINGERPRINT_OPTIONS_H_
#define FINGERPRINT_OPTIONS_H_

#include <quorvane/file_store.h>

#include <optional>
#include <string>

namespace fingerprint {

// Exit statuses. With the first two the work is done.
constexpr int ALL_DONE = 0;
constexpr int DONE_WITH_COMPLAINTS = 1;  // something was unreadable, or nothing could be stored
constexpr int WRONG_USAGE = 2;
constexpr int INTERRUPTED = 128;  // plus the signal; earlier digests are stored

struct Options {
  std::string tree;                   // the directory to walk
  std::string store = "fingerprint";  // the store's name
  quorvane::cache::StoreKind kind = quorvane::cache::StoreKind::indexed;
  bool uses_files = true;
  bool uses_servers = false;
  std::string root;
  unsigned jobs = 0;
};

// Fills `out`. If it returns a status, exit with it: --help was given, or a mistake has
// been reported.
std::optional<int> parse_options(int argc, char** argv, Options& out);

}  // namespace fingerprint

#endif  // FINGERPRINT_OPTIONS_H_
