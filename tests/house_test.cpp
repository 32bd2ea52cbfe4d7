// The rules of the tree that a compiler doesn't check.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <ostream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/lines.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

const fs::path kUtil = fs::path(QV_SOURCE_DIR) / "util";
const fs::path kHeaders = kUtil / "include" / "quorvane";
const fs::path kRemote = fs::path(QV_SOURCE_DIR) / "remote";
const fs::path kTool = fs::path(QV_SOURCE_DIR) / "tools" / "qvutil";
const fs::path kTracing = fs::path(QV_SOURCE_DIR) / "tracing";
const fs::path kRemoteHeaders = kRemote / "include" / "quorvane";

std::vector<fs::path> sources_below(const fs::path& directory) {
  std::vector<fs::path> files;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    const std::string extension = entry.path().extension();
    if (extension == ".h" || extension == ".cpp") {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

struct CommandResult {
  int status;
  std::string output;
};

CommandResult run(const std::string& command) {
  CommandResult result{-1, ""};
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) {
    return result;
  }
  std::array<char, 4096> bytes;
  std::size_t size;
  while ((size = fread(bytes.data(), 1, bytes.size(), pipe)) > 0) {
    result.output.append(bytes.data(), size);
  }
  result.status = pclose(pipe);
  return result;
}

// --------------------------------------------------------------------- headers

bool has_c_functions(const fs::path& header) {
  return test::read_file(header).find("extern \"C\" {") != std::string::npos;
}

std::vector<fs::path> public_headers() {
  std::vector<fs::path> headers = sources_below(kHeaders);
  const std::vector<fs::path> of_remote = sources_below(kRemoteHeaders);
  headers.insert(headers.end(), of_remote.begin(), of_remote.end());
  return headers;
}

#ifndef __SANITIZE_THREAD__  // the compiler is that of the plain build

struct Compilation {
  std::string header;
  std::string standard;  // "c++17"
};

void PrintTo(const Compilation& row, std::ostream* out) {
  *out << row.header << " as " << row.standard;
}

std::vector<Compilation> compilations() {
  std::vector<Compilation> all;
  for (const fs::path& header : public_headers()) {
    all.push_back({header.filename(), "c++17"});
    all.push_back({header.filename(), "c++20"});
    if (has_c_functions(header)) {
      all.push_back({header.filename(), "c11"});
    }
  }
  return all;
}

class Header : public testing::TestWithParam<Compilation> {};

TEST_P(Header, CompilesAloneWithoutWarnings) {
  const Compilation& row = GetParam();
  const bool is_c = row.standard == "c11";
  const test::TempDir dir;
  const std::string file = dir.file(is_c ? "alone.c" : "alone.cpp");
  test::write_file(file, "#include <quorvane/" + row.header + ">\n");
  const CommandResult result =
      run(std::string(is_c ? QV_C_COMPILER : QV_CXX_COMPILER) + " -std=" + row.standard +
          " -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I" + (kUtil / "include").string() +
          " -I" + (kRemote / "include").string() + " " + file);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "");
}

INSTANTIATE_TEST_SUITE_P(Exported, Header, testing::ValuesIn(compilations()));
#endif

TEST(Headers, ThoseWithCFunctionsAreForC) {
  std::vector<std::string> names;
  for (const fs::path& header : sources_below(kHeaders)) {
    if (has_c_functions(header)) {
      names.push_back(header.filename());
    }
  }
  EXPECT_THAT(names, testing::IsSupersetOf(
                         {"cache_c.h", "env_config.h", "fault.h", "log.h", "module.h", "stats.h"}));
}

TEST(Headers, ServeAProgramInC) {
  const test::Ran ran =
      test::run_program(QV_BINARY_DIR "/bin/house_c_program", {}, {{"QV_TEST_VALUE", "42"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(),
              testing::ElementsAre("INFO value 42", "INFO list", "ERROR expected 1"));
}

// ---------------------------------------------------------------------- floors

// The floor of a file in util/, or nothing for a file that has none yet.
std::optional<int> floor_of(const fs::path& file) {
  static const std::map<std::string, int> floors{{"export", 0},
                                                 {"process_generation", 0},
                                                 {"fork_guard", 0},
                                                 {"descriptor", 0},
                                                 {"uncancellable", 0},
                                                 {"fork_gate", 0},
                                                 {"once", 0},
                                                 {"text_writer", 0},
                                                 {"log_file", 1},
                                                 {"log", 1},
                                                 {"module_levels", 2},
                                                 {"module", 2},
                                                 {"fault", 3},
                                                 {"env_config", 3},
                                                 {"buffer", 4},
                                                 {"tracer", 4},
                                                 {"circular_buffer_pool", 4},
                                                 {"hasher", 5},
                                                 {"mmapped_file", 5},
                                                 {"report_file", 5},
                                                 {"stats", 5},
                                                 {"stats_c", 5},
                                                 {"stats_instance", 5},
                                                 {"metric_type", 5},
                                                 {"uuid", 5},
                                                 {"mpsc", 5},
                                                 {"pidset", 5},
                                                 {"pid_file", 5},
                                                 {"binary_dumper", 5},
                                                 {"fatbin_parser", 5},
                                                 {"small_utils", 5},
                                                 {"cache", 6},
                                                 {"store", 6},
                                                 {"file_store", 6},
                                                 {"cache_c", 6}};
  const std::string folder = file.parent_path().filename();
  if (folder == "cache" || folder == "indexed") {
    return 6;
  }
  const auto found = floors.find(file.stem());
  return found == floors.end() ? std::nullopt : std::optional<int>(found->second);
}

std::vector<std::string> includes_of(const fs::path& file) {
  static const std::regex include(R"re(^\s*#\s*include\s*[<"]([^>"]+)[>"])re");
  std::vector<std::string> names;
  std::smatch match;
  for (const std::string& line : test::lines_of(test::read_file(file))) {
    if (std::regex_search(line, match, include)) {
      names.push_back(match[1]);
    }
  }
  return names;
}

// Whether the name is that of one of our own headers, however an include spells it.
bool is_ours(const std::string& name) {
  return name.rfind("quorvane/", 0) == 0 || fs::exists(kUtil / name) ||
         fs::exists(kUtil / "src" / name);
}

TEST(Floors, EveryFileHasOne) {
  for (const fs::path& file : sources_below(kUtil)) {
    EXPECT_TRUE(floor_of(file)) << file << " has no floor";
  }
}

TEST(Floors, NoIncludeRunsUpwards) {
  int arrows = 0;
  for (const fs::path& file : sources_below(kUtil)) {
    for (const std::string& name : includes_of(file)) {
      if (is_ours(name)) {
        EXPECT_LE(floor_of(name), floor_of(file)) << file << " includes " << name;
        ++arrows;
      }
    }
  }
  EXPECT_GT(arrows, 20);
}

// The floors inside cache/, lowest first, each unit with the class that it defines.
struct Unit {
  std::string name;
  std::string class_name;
};

const std::vector<std::vector<Unit>> kCacheFloors{
    {{"checks", ""},
     {"indexed/format", "IndexPage"},
     {"indexed/entry_reader", "EntryReader"},
     {"indexed/found_keys", "FoundKeys"},
     {"indexed/look_clock", "LookClock"},
     {"indexed/mapping", "Mapping"},
     {"indexed/open_file", "OpenFile"},
     {"indexed/paths", "Paths"},
     {"indexed/reported", "Reported"},
     {"indexed/reader_gate", "ReaderGate"},
     {"indexed/status", "Status"},
     {"indexed/write_all", "write_all"},
     {"trace", "Trace"},
     {"key_slabs", "KeySlabs"},
     {"size_text", "parse_size"},
     {"key_hash", "key_hash"},
     {"flush_turn", "FlushTurn"},
     {"hex_key", "HexKey"},
     {"file_trace", "FileTrace"},
     {"failure", "Failure"}},
    {{"cache_stats", "CacheStats"},
     {"loaded_index", "LoadedIndex"},
     {"found_table", "FoundTable"},
     {"append_note", "AppendNote"},
     {"lock_wait", "LockWait"},
     {"store_files", ""},
     {"store", ""},
     {"locked", "Locked"},
     {"entry_scan", "ScannedEntry"},
     {"indexed/data_writer", "DataWriter"},
     {"indexed/entry", "Entry"}},
    {{"store_place", "StorePlace"},
     {"missing_store", "MissingStore"},
     {"indexed/cleaner_mark", "CleanerMark"},
     {"indexed/data_file", "DataFile"},
     {"indexed/store_turn", "StoreTurn"}},
    {{"store_lock", "StoreFLock"},
     {"cleanup_controller", ""},
     {"open_error", "error_of_invalid"},
     {"indexed/index_file", "IndexFile"},
     {"indexed/scan", "ScanResult"}},
    {{"noted_change", "NotedChange"},
     {"indexed/index_builder", "IndexBuilder"},
     {"indexed/pair", "Pair"}},
    {{"file_store", "FileStoreSkeleton"},
     {"indexed/append", "Append"},
     {"indexed/kept_entries", "KeptEntries"},
     {"indexed/pinned", "Pinned"}},
    {{"entry_key", "read_entry_key"},
     {"indexed/clean", "Clean"},
     {"indexed/present_pair", "PresentPair"},
     {"lazy_entry", "lazy_entry"},
     {"key_file_scan", "insert_whole_key_file"}},
    {{"indexed/engine", "Engine"}, {"lazy_append", "LazyAppend"}},
    {{"basic_store", "BasicStore"},
     {"lazy_lookup_store", "LazyLookupStore"},
     {"indexed_store", "IndexedStore"}},
    {{"cache", "Cache"}, {"make_store", "make_file_store"}},
    {{"cache_c", "qv_cache"}}};

// "store_lock", "indexed/pair".
std::string unit_of(const fs::path& file) {
  const fs::path below = file.lexically_relative(kUtil / "src" / "cache");
  return (below.parent_path() / below.stem()).string();
}

std::optional<std::size_t> cache_floor_of(const std::string& unit) {
  for (std::size_t floor = 0; floor < kCacheFloors.size(); ++floor) {
    for (const Unit& candidate : kCacheFloors[floor]) {
      if (candidate.name == unit) {
        return floor;
      }
    }
  }
  return std::nullopt;
}

// The words of a file's code: no comments, no literals, no names of included files.
std::set<std::string> words_of_code(const fs::path& file) {
  static const std::regex not_code(R"re(//.*|"(\\.|[^"\\])*"|#include.*)re");
  static const std::regex word(R"re(\w+)re");
  const std::string code = std::regex_replace(test::read_file(file), not_code, "");
  return {std::sregex_token_iterator(code.begin(), code.end(), word), std::sregex_token_iterator()};
}

TEST(Floors, EveryUnitOfTheCacheHasOneInsideIt) {
  for (const fs::path& file : sources_below(kUtil / "src" / "cache")) {
    EXPECT_TRUE(cache_floor_of(unit_of(file))) << file << " has no floor";
  }
}

// A unit uses only the units below it: it neither includes the headers of others nor names
// their classes.
TEST(Floors, NoUnitOfTheCacheKnowsWhatIsNotBelowIt) {
  int arrows = 0;
  for (const fs::path& file : sources_below(kUtil / "src" / "cache")) {
    const std::size_t own = cache_floor_of(unit_of(file)).value();
    const std::set<std::string> words = words_of_code(file);
    const std::vector<std::string> includes = includes_of(file);
    for (std::size_t floor = 0; floor < kCacheFloors.size(); ++floor) {
      for (const Unit& unit : kCacheFloors[floor]) {
        const bool is_known =
            words.count(unit.class_name) != 0 ||
            std::count(includes.begin(), includes.end(), "src/cache/" + unit.name + ".h") != 0;
        if (is_known && unit.name != unit_of(file)) {
          EXPECT_LT(floor, own) << file << " knows " << unit.name;
          ++arrows;
        }
      }
    }
  }
  EXPECT_GT(arrows, 20);
}

TEST(Floors, TheLibraryIncludesNothingFromOutside) {
  for (const fs::path& file : sources_below(kUtil)) {
    for (const std::string& name : includes_of(file)) {
      EXPECT_THAT(name, testing::Not(
                            testing::ContainsRegex("circmetrics|examples/|tests/|bench/|support/")))
          << file;
    }
  }
}

TEST(Floors, ExportedHeadersIncludeOnlyExportedHeaders) {
  for (const fs::path& file : public_headers()) {
    for (const std::string& name : includes_of(file)) {
      EXPECT_TRUE(!(is_ours(name) || fs::exists(kRemote / name)) || name.rfind("quorvane/", 0) == 0)
          << file << " includes " << name;
    }
  }
}

// What libqvremote.so shares with libQVUtil.so: the public headers, and hidden helpers that it
// has copies of.
TEST(Floors, TheRemoteLibraryIncludesOnlyHelpersOfTheOther) {
  static const std::set<std::string> shared{"src/fork_guard.h",       "src/process_generation.h",
                                            "src/descriptor.h",       "src/uncancellable.h",
                                            "src/cache/flush_turn.h", "src/cache/trace.h"};
  int arrows = 0;
  for (const fs::path& file : sources_below(kRemote)) {
    for (const std::string& name : includes_of(file)) {
      if (is_ours(name) && !fs::exists(kRemote / name)) {
        EXPECT_TRUE(name.rfind("quorvane/", 0) == 0 || shared.count(name) != 0)
            << file << " includes " << name;
        ++arrows;
      }
    }
  }
  EXPECT_GT(arrows, 3);
}

// The same for libqvtrace.so, which also looks up the log's functions.
TEST(Floors, TheTracerIncludesOnlyHelpersOfTheLibrary) {
  static const std::set<std::string> shared{"quorvane/tracer.h",        "quorvane/log.h",
                                            "quorvane/module.h",        "src/once.h",
                                            "src/process_generation.h", "src/descriptor.h",
                                            "src/uncancellable.h",      "src/cache/flush_turn.h"};
  std::set<std::string> included;
  for (const fs::path& file : sources_below(kTracing)) {
    for (const std::string& name : includes_of(file)) {
      if (is_ours(name)) {
        EXPECT_FALSE(fs::exists(kTracing / name)) << name << " would mean two files";
        included.insert(name);
      }
    }
  }
  EXPECT_EQ(included, shared);
}

// An include of "src/NAME.h" would mean one or the other, by the order of directories.
TEST(Floors, NoHiddenHeaderOfTheRemoteLibraryHidesOneOfTheOther) {
  for (const fs::path& file : sources_below(kRemote / "src")) {
    EXPECT_FALSE(fs::exists(kUtil / file.lexically_relative(kRemote))) << file;
  }
}

TEST(Floors, NothingButTheCInterfaceKnowsTheRemoteLibrary) {
  for (const fs::path& file : sources_below(kUtil)) {
    for (const std::string& name : includes_of(file)) {
      EXPECT_THAT(name, testing::Not(testing::HasSubstr("remote_store"))) << file;
    }
  }
}

// The tool uses what any program can use. Its folders are floors, lowest first.
TEST(Floors, TheToolIncludesOnlyExportedHeadersAndWhatIsBelow) {
  static const std::map<std::string, int> floors{{"output", 1}, {"store", 2},     {"rewrite", 3},
                                                 {"log", 3},    {"processes", 3}, {"report", 3},
                                                 {"trace", 3},  {"commands", 4},  {"cli", 5}};
  int arrows = 0;
  for (const fs::path& file : sources_below(kTool)) {
    const std::string folder = file.parent_path().filename();
    const int own = folder == "qvutil" ? 6 : floors.at(folder);
    for (const std::string& name : includes_of(file)) {
      EXPECT_FALSE(name.rfind("src/", 0) == 0) << file << " includes " << name;
      EXPECT_TRUE(name != "CLI/CLI.hpp" || folder == "cli") << file << " is slow to compile";
      // How a command ends, all know.
      if (name.rfind("qvutil/", 0) == 0 && name != "qvutil/output/outcome.h") {
        EXPECT_LE(floors.at(fs::path(name).parent_path().filename()), own)
            << file << " includes " << name;
        ++arrows;
      }
    }
  }
  EXPECT_GT(arrows, 20);
}

// ---------------------------------------------------------------------- pages

// The lines of docs/pictures/floors.dot that draw a floor.
std::string picture_of_floor(int floor) {
  const std::string picture = test::read_file(QV_SOURCE_DIR "/docs/pictures/floors.dot");
  const std::size_t start = picture.find("Floor " + std::to_string(floor));
  return start == std::string::npos
             ? ""
             : picture.substr(start, picture.find("Floor ", start + 1) - start);
}

TEST(FloorsPicture, ShowsEveryFileOnItsFloor) {
  static const std::map<std::string, std::string> component_of{
      {"fatbin_parser", "binary_dumper"}, {"stats_c", "stats"}, {"stats_instance", "stats"}};
  for (const fs::path& file : sources_below(kUtil)) {
    const auto found = component_of.find(file.stem());
    const std::string name = found == component_of.end() ? file.stem().string() : found->second;
    const std::string picture = picture_of_floor(floor_of(file).value());
    EXPECT_TRUE(std::regex_search(picture, std::regex("\\b" + name + "\\b")))
        << file << " is missing";
  }
}

std::vector<std::string> words_of(const std::string& text) {
  static const std::regex word(R"re(\w+)re");
  return {std::sregex_token_iterator(text.begin(), text.end(), word), std::sregex_token_iterator()};
}

TEST(FloorsPicture, HasNoArrowInTheCacheThatRunsUpwards) {
  static const std::regex arrow(R"re((\w+|\{.*\}) -> (\w+|\{.*\}))re");
  const std::string cache = picture_of_floor(6);
  int arrows = 0;
  for (std::sregex_iterator it(cache.begin(), cache.end(), arrow), end; it != end; ++it) {
    for (const std::string& from : words_of((*it)[1])) {
      for (const std::string& to : words_of((*it)[2])) {
        if (to != "helpers" && to != "indexed") {  // groups: most units use the former
          EXPECT_TRUE(cache_floor_of(to)) << to << " is not a unit of the cache";
          EXPECT_LT(cache_floor_of(to), cache_floor_of(from)) << from << " -> " << to;
          ++arrows;
        }
      }
    }
  }
  EXPECT_GT(arrows, 20);
}

std::set<std::string> names_of_tests() {
  static const std::regex test(R"re(TEST(_F|_P)?\((\w+),\s*(\w+)\))re");
  std::set<std::string> names;
  for (const fs::path& file : sources_below(fs::path(QV_SOURCE_DIR) / "tests")) {
    const std::string text = test::read_file(file);
    for (std::sregex_iterator it(text.begin(), text.end(), test), end; it != end; ++it) {
      names.insert((*it)[2].str() + "." + (*it)[3].str());
    }
  }
  return names;
}

TEST(CompatibilityPage, NamesTestsThatExist) {
  static const std::regex quoted(R"re(`([A-Z]\w+\.[A-Z]\w+)`)re");
  const std::string page = test::read_file(QV_SOURCE_DIR "/docs/compatibility.md");
  const std::set<std::string> names = names_of_tests();
  int quotations = 0;
  for (std::sregex_iterator it(page.begin(), page.end(), quoted), end; it != end; ++it) {
    EXPECT_EQ(names.count((*it)[1]), 1U) << (*it)[1];
    ++quotations;
  }
  EXPECT_GT(quotations, 50);
}

TEST(ArchitecturePage, NamesEveryPublicHeaderAndOnlySourcesThatExist) {
  const std::string page = test::read_file(QV_SOURCE_DIR "/docs/architecture.md");
  for (const fs::path& header : public_headers()) {
    EXPECT_THAT(page, testing::HasSubstr("`" + header.filename().string() + "`"));
  }
  static const std::regex source(
      R"re(`((src|buffer_pool|remote/src|tracing/src)/[\w/]+\.(cpp|h))`)re");
  for (std::sregex_iterator it(page.begin(), page.end(), source), end; it != end; ++it) {
    const std::string name = (*it)[1];
    const bool is_in_util = (*it)[2] == "src" || (*it)[2] == "buffer_pool";
    EXPECT_TRUE(fs::exists(is_in_util ? kUtil / name : fs::path(QV_SOURCE_DIR) / name)) << name;
  }
}

TEST(ArchitecturePage, NamesEveryUnitOfTheRemoteLibraryAndTheTracer) {
  const std::string page = test::read_file(QV_SOURCE_DIR "/docs/architecture.md");
  for (const fs::path& library : {kRemote, kTracing}) {
    for (const fs::path& file : sources_below(library / "src")) {
      EXPECT_THAT(page, testing::HasSubstr("`" + file.stem().string() + "`"));
    }
  }
}

// --------------------------------------------------------------------- version

std::string version() {
  static const std::regex project(R"re(project\(QVUtil VERSION ([0-9.]+))re");
  const std::string text = test::read_file(QV_SOURCE_DIR "/CMakeLists.txt");
  std::smatch match;
  return std::regex_search(text, match, project) ? match[1].str() : "";
}

// CHANGELOG.md keeps the version of every release, so it isn't searched.
TEST(Version, StandsInOnePlace) {
  ASSERT_NE(version(), "");
  const CommandResult places = run(
      "cd '" QV_SOURCE_DIR "' && grep -rlwF '" + version() +
      "' CMakeLists.txt CMakePresets.json CONTRIBUTING.md README.md bench circmetrics cmake docs"
      " examples fuzz remote scripts tests tools tracing util");
  EXPECT_EQ(places.output, "CMakeLists.txt\n");
}

// --------------------------------------------------------------------- symbols

#ifndef QV_SANITIZED
// A sanitizer adds symbols of its own.

// Each symbol with its version: NAME@@VERSION. Compilers differ in what they inline, so weak
// copies of inline functions don't count: one list serves every compiler. The tracer's function is
// weak as well, since its declaration is.
std::vector<std::string> versioned_symbols(const std::string& library) {
  const CommandResult result =
      run("nm -D --defined-only --format=posix " QV_BINARY_DIR "/lib/" + library);
  EXPECT_EQ(result.status, 0) << result.output;
  std::vector<std::string> names;
  for (const std::string& line : test::lines_of(result.output)) {
    std::istringstream fields(line);
    std::string name;
    std::string type;
    fields >> name >> type;
    const bool is_class_data = name.rfind("_ZT", 0) == 0;
    const bool is_tracers = name.find("8qvtracer") != std::string::npos;
    if (type != "A" &&
        ((type != "W" && type != "V" && type != "u") || is_class_data || is_tracers)) {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> exported_symbols(const std::string& library) {
  std::vector<std::string> names = versioned_symbols(library);
  for (std::string& name : names) {
    name.resize(std::min(name.size(), name.find('@')));
  }
  std::sort(names.begin(), names.end());
  return names;
}

struct Library {
  std::string name;
  std::string list;  // of its symbols
  std::string version;
};

const std::vector<Library> kLibraries{
    {"libQVUtil.so", "util/QVUtil.symbols", "@@QVUTIL_1.0"},
    {"libqvremote.so", "remote/QVRemote.symbols", "@@QVREMOTE_1.0"},
    {"libqvtrace.so", "tracing/QVTrace.symbols", "@@QVTRACE_1.0"}};

TEST(ExportedSymbols, AreTheListInTheRepository) {
  for (const Library& library : kLibraries) {
    std::string list;
    for (const std::string& name : exported_symbols(library.name)) {
      list += name + "\n";
    }
    EXPECT_EQ(list, test::read_file(fs::path(QV_SOURCE_DIR) / library.list))
        << "if the change is intended, apply the difference to " << library.list;
  }
}

TEST(ExportedSymbols, CarryTheVersionOfTheirFirstRelease) {
  for (const Library& library : kLibraries) {
    const std::vector<std::string> names = versioned_symbols(library.name);
    ASSERT_FALSE(names.empty());
    EXPECT_THAT(names, testing::Each(testing::EndsWith(library.version)));
  }
}

TEST(ExportedSymbols, AreOurs) {
  for (const Library& library : kLibraries) {
    for (const std::string& name : exported_symbols(library.name)) {
      EXPECT_THAT(name, testing::ContainsRegex("^qv_|quorvane|^_Z[0-9]+qv_|^_ZN8qvtracer")) << name;
    }
  }
}
#endif

}  // namespace
