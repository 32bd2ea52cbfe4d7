// qvutil: looks into what programs with the library leave on disk, and mends it.
#include "qvutil/cli/run.h"

int main(int argc, char** argv) { return quorvane::tool::run(argc, argv); }
