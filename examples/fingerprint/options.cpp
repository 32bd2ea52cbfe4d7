#include "fingerprint/options.h"

#include <getopt.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <thread>

#include "fingerprint/complaint.h"

namespace fingerprint {
namespace {

using quorvane::cache::StoreKind;

constexpr unsigned MAX_JOBS = 1024;

constexpr const char* HELP =
    "Usage: fingerprint [OPTION]... DIR\n"
    "Digests every regular file below DIR and keeps the digests in a store, so that\n"
    "the next run reads only the files that are new or changed.\n"
    "\n"
    "  --store NAME  the store's name (default: fingerprint)\n"
    "  --kind KIND   indexed, the default: two files, entries and their index, of\n"
    "                which nothing is read before a look-up; basic: one file, read\n"
    "                into memory; or lazy_lookup: two files, keys and values, of\n"
    "                which only the keys are read into memory. Each kind has files\n"
    "                of its own. remote: no files, but the servers that QV_CACHE_REMOTE\n"
    "                names, which machines share; or tiered: those of indexed first, then\n"
    "                the servers\n"
    "  --root DIR    the directory that holds the store's files; it must exist\n"
    "                (default: the value of QV_CACHE_STORE_ROOT)\n"
    "  --jobs N      worker processes, 1 to 1024 (default: one per core)\n"
    "  --help        this text\n"
    "\n"
    "Exit status: 0 all done; 1 done, but something was unreadable or nothing could\n"
    "be stored; 2 wrong usage; 128 + N ended early by signal N, with what was done\n"
    "until then in the store.\n";

int wrong_usage(const std::string& what) {
  complain(what + " (try --help)");
  return WRONG_USAGE;
}

bool parse_jobs(const char* text, unsigned& out) {
  const char* end = text + std::strlen(text);
  const auto [stop, error] = std::from_chars(text, end, out);
  return error == std::errc() && stop == end && out >= 1 && out <= MAX_JOBS;
}

bool parse_kind(const std::string& name, Options& out) {
  struct Kind {
    StoreKind files;
    bool uses_files;
    bool uses_servers;
  };
  static const std::map<std::string, Kind> kinds{
      {"basic", {StoreKind::basic, true, false}},
      {"lazy_lookup", {StoreKind::lazy_lookup, true, false}},
      {"indexed", {StoreKind::indexed, true, false}},
      {"remote", {StoreKind::indexed, false, true}},
      {"tiered", {StoreKind::indexed, true, true}}};
  const auto kind = kinds.find(name);
  if (kind != kinds.end()) {
    out.kind = kind->second.files;
    out.uses_files = kind->second.uses_files;
    out.uses_servers = kind->second.uses_servers;
  }
  return kind != kinds.end();
}

// getopt reports a short option by its letter and a long one not at all.
std::string unknown_option(char** argv) {
  return optopt != 0 ? std::string("-") + static_cast<char>(optopt) : argv[optind - 1];
}

// Takes the option's value, optarg. Returns null, or the complaint to print before the value.
const char* take_value(int option_name, Options& out) {
  switch (option_name) {
    case 's':
      out.store = optarg;
      return nullptr;
    case 'r':
      out.root = optarg;
      return nullptr;
    case 'k':
      return parse_kind(optarg, out) ? nullptr : "not a kind of store: ";
    default:
      return parse_jobs(optarg, out.jobs) ? nullptr : "not a number of jobs: ";
  }
}

std::optional<int> check(Options& out) {
  if (out.store.empty() || out.store.find('/') != std::string::npos) {
    return wrong_usage("the store's name must be a plain file name");
  }
  if (out.root.empty()) {
    const char* root = std::getenv("QV_CACHE_STORE_ROOT");
    out.root = root == nullptr ? "" : root;
  }
  if (out.uses_files && out.root.empty()) {
    return wrong_usage("no directory for the store: set QV_CACHE_STORE_ROOT or pass --root DIR");
  }
  if (out.jobs == 0) {
    out.jobs = std::max(1U, std::min(MAX_JOBS, std::thread::hardware_concurrency()));
  }
  return std::nullopt;
}

}  // namespace

std::optional<int> parse_options(int argc, char** argv, Options& out) {
  static const option known[] = {
      {"store", required_argument, nullptr, 's'}, {"kind", required_argument, nullptr, 'k'},
      {"root", required_argument, nullptr, 'r'},  {"jobs", required_argument, nullptr, 'j'},
      {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0}};
  opterr = 0;
  for (int name = 0; (name = getopt_long(argc, argv, ":", known, nullptr)) != -1;) {
    switch (name) {
      case 'h':
        std::fputs(HELP, stdout);
        return ALL_DONE;
      case ':':
        return wrong_usage(std::string("a value is missing after ") + argv[optind - 1]);
      case '?':
        return wrong_usage("unknown option " + unknown_option(argv));
      default:
        if (const char* complaint = take_value(name, out)) {
          return wrong_usage(complaint + std::string(optarg));
        }
    }
  }
  if (argc - optind != 1) {
    return wrong_usage("expected exactly one directory");
  }
  out.tree = argv[optind];
  return check(out);
}

}  // namespace fingerprint
