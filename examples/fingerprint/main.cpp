// fingerprint: digests all files of a tree, and keeps the digests in a store between runs.
#include "fingerprint/options.h"
#include "fingerprint/run.h"

int main(int argc, char** argv) {
  fingerprint::Options options;
  if (const auto status = fingerprint::parse_options(argc, argv, options)) {
    return *status;
  }
  return fingerprint::run(options);
}
