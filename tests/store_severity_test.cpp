// The severity of each check of the caches and stores: which checks the module still reports at
// a lower threshold.
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "support/lazy_files.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::BasicStore;
using quorvane::cache::Cache;
using quorvane::cache::CleanupController;
using quorvane::cache::EntryMap;
using quorvane::cache::FileStoreSkeleton;
using quorvane::cache::KeySet;
using quorvane::cache::LazyLookupStore;
using quorvane::util::RwBuffer;
using test::basic_file;
using test::buffer;
using test::buffers;
using test::expectation;
using test::header_bytes;
using test::le32;
using test::le64;
using test::Ran;
using test::root_path;
using Messages = std::vector<std::string>;

namespace {

const std::string kMagic = le32(test::kStoreMagic);
const test::Entry kEntry{"k", {"v"}};

std::string maps_file() { return test::root_file("maps"); }

template <typename StoreType>
struct AnyMaps {
  CleanupController controller{0};
  StoreType store{"maps", std::make_shared<test::CountingLock>(), &controller};

  void load() {
    EntryMap out;
    store.try_nonlock_load(out);
  }
  void scan() {
    KeySet keys;
    store.try_nonlock_load_new_keys(keys);
  }
};
using Maps = AnyMaps<BasicStore>;
using LazyMaps = AnyMaps<LazyLookupStore>;

void load(const std::string& bytes) {
  test::write_file(maps_file(), bytes);
  Maps().load();
}

void scan(const std::string& bytes) {
  test::write_file(maps_file(), bytes);
  Maps().scan();
}

void write_entry(std::size_t room) {
  RwBuffer bytes(room);
  quorvane::util::BufferWriter writer = bytes.writer();
  BasicStore::write_entry(writer, buffer("abc"), buffers({"ab"}));
}

// Fails each check of the decoding and encoding once.
void fail_at_every_piece() {
  load("1234567");
  load(header_bytes(2));
  load(basic_file({}) + "123");
  load(basic_file({}) + "1234");
  load(basic_file({}) + kMagic);
  load(basic_file({}) + kMagic + le64(0));
  load(basic_file({}) + kMagic + le64(2) + "k");
  const std::string key = basic_file({}) + kMagic + le64(1) + "k";
  load(key);
  load(key + le64(0));
  load(key + le64(1));
  load(key + le64(1) + le64(0));
  load(key + le64(1) + le64(2) + "v");
  scan(key + le64(1) + le64(2) + "v");
  load(basic_file({kEntry, kEntry}));
  scan(basic_file({kEntry, kEntry}));
  for (const std::size_t room : {3u, 11u, 14u, 22u, 30u, 32u}) {
    write_entry(room);
  }
}

const Messages kPieces{
    "hdr",
    "std::memcmp(hdr, &valid_hdr_, sizeof(valid_hdr_)) == 0",
    "freader.get(&magic_number)",
    "magic_number == QV_CACHE_STORE_MAGIC_NUMBER",
    "freader.get(&key_size)",
    "key_size > 0",
    "freader.get_raw(rvalbuf.get_buffer(), key_size)",
    "freader.get(&num_val_atoms)",
    "num_val_atoms > 0",
    "freader.get(&val_atom_size)",
    "val_atom_size > 0",
    "freader.get_raw(val_atom_buf.get_buffer(), val_atom_size)",
    "freader.buffer(val_atom_size)",
    "emplace_ret.second",
    "emplace_ret.second",
    "fwriter.put(QV_CACHE_STORE_MAGIC_NUMBER)",
    "fwriter.put(key.get_size())",
    "fwriter.put_raw(key.get_buffer(), key.get_size())",
    "fwriter.put(val.size())",
    "fwriter.put(val_atom.get_size())",
    "fwriter.put_raw(val_atom.get_buffer(), val_atom.get_size())",
};

// Fails each check of the files themselves once.
void fail_at_every_file() {
  test::write_file(maps_file(), basic_file({kEntry}));
  Maps maps;
  maps.load();
  test::write_file(maps_file(), basic_file({}));
  maps.scan();
  std::remove(maps_file().c_str());
  maps.store.check_consistent_state();
  Maps().load();
  Maps().scan();
  maps.store.nonlock_get_disk_usage();
  scan("");
  load("");
  maps.store.cache_file_prepare_to_append("/none/maps");
  maps.store.cache_file_prepare_to_append("/dev/full");
}

const Messages kFilesSeverity1{"file.size() >= file_last_size_",
                               "file_last_size_ == 0 || file_exists(fpath_)", "file.good()"};
const Messages kFilesSeverity2{"file.is_open()", "file.is_open()"};
const Messages kFilesSeverity3{"file_exists(fpath_)", "file_exists(fpath_)",
                               "stat(fpath_.c_str(), &st) == 0"};

// Fails each check of the caches once. One cache has loaded an entry when its file is restarted.
void fail_at_every_sequence() {
  const auto lock = std::make_shared<test::CountingLock>();
  CleanupController controller(0);
  test::write_file(maps_file(), basic_file({kEntry}));
  {
    Cache cache("maps", std::make_unique<BasicStore>("maps", lock, &controller), false);
    cache.add_value(buffer("other"), buffers({"v"}));
    test::write_file(maps_file(), basic_file({}));
  }
  Cache without_store("maps", nullptr, false);
  test::write_file(maps_file(), "damage");
  Cache damaged("maps", std::make_unique<BasicStore>("maps", lock, &controller), false);
  FileStoreSkeleton::get_default_cleanup_controller();
  unsetenv("QV_CACHE_STORE_ROOT");
  quorvane::cache::get_store_file_path("maps");
}

// --- the lazy store ---

void lazy_load(const std::string& key_bytes, const std::string& val_bytes = header_bytes(2)) {
  test::write_lazy_files(root_path(), {key_bytes, val_bytes});
  LazyMaps().load();
}

void lazy_scan(const std::string& key_bytes) {
  test::write_lazy_files(root_path(), {key_bytes, header_bytes(2)});
  LazyMaps().scan();
}

void fail_at_every_lazy_piece() {
  const std::string key = header_bytes(2) + kMagic + le64(1) + "k";
  lazy_load(key);
  lazy_load(key + le64(8));
  lazy_load(key + le64(8) + le64(0));
  lazy_load(key + le64(8) + le64(1));
  lazy_load(key + le64(8) + le64(1) + le64(0));
  lazy_load(key + le64(7) + le64(1) + le64(1));
  lazy_load(key + le64(8) + le64(1) + le64(1));
  lazy_scan(key);
  lazy_scan(key + le64(8));
  lazy_scan(key + le64(8) + le64(0));
  lazy_scan(key + le64(8) + le64(1));
  lazy_scan(test::lazy_files({kEntry, kEntry}).key);
  lazy_scan(header_bytes(1));
  for (const std::size_t room : {16u, 24u, 32u}) {
    RwBuffer bytes(room);
    quorvane::util::BufferWriter writer = bytes.writer();
    LazyLookupStore::write_key_file_entry(writer, buffer("abc"), 8, buffers({"v"}));
  }
  RwBuffer bytes(4);
  quorvane::util::BufferWriter writer = bytes.writer();
  LazyLookupStore::write_val_file_entry(writer, buffers({"v"}));
}

const Messages kLazyPieces{
    "key_freader.get(&val_offset)",
    "key_freader.get(&num_val_atoms)",
    "num_val_atoms > 0",
    "key_freader.get(&val_atom_size)",
    "val_atom_size > 0",
    "val_offset >= sizeof(hdr_t)",
    "val_atom_offset + val_atom_size <= val_fbuffer.get_size()",
    "key_freader.buffer(sizeof(std::size_t))",
    "key_freader.get(&num_val_atoms)",
    "num_val_atoms > 0",
    "key_freader.buffer(num_val_atoms * sizeof(std::size_t))",
    "emplace_ret.second",
    "std::memcmp(hdr, &valid_hdr_, sizeof(valid_hdr_)) == 0",
    "read_header(key_freader)",
    "fwriter.put(val_offset)",
    "fwriter.put(val.size())",
    "fwriter.put(val_atom.get_size())",
    "fwriter.put_raw(val_atom.get_buffer(), val_atom.get_size())",
};

// Appends an entry that exceeds the size limit of a file.
void lazy_append_without_room(const test::Entry& entry) {
  test::write_lazy_files(root_path(), test::lazy_files({}));
  LazyMaps().store.try_nonlock_append(test::entry_map({entry}), {});
}

void fail_at_every_lazy_file() {
  test::write_lazy_files(root_path(), test::lazy_files({kEntry}));
  LazyMaps maps;
  maps.load();
  test::write_file(root_path() + "/key_maps", header_bytes(2));
  maps.scan();
  std::remove((root_path() + "/key_maps").c_str());
  maps.store.check_consistent_state();
  std::remove((root_path() + "/val_maps").c_str());
  maps.store.check_consistent_state();
  LazyMaps().load();
  LazyMaps().scan();
  maps.store.nonlock_get_disk_usage();
  lazy_load("");
  lazy_scan("");
  lazy_load(header_bytes(2), "");
  const test::LazyFiles twice = test::lazy_files({kEntry, kEntry});
  lazy_load(twice.key, twice.val);
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{100000, 100000};
  setrlimit(RLIMIT_FSIZE, &limit);
  lazy_append_without_room({"k", {std::string(200000, 'v')}});
  lazy_append_without_room({std::string(200000, 'k'), {"v"}});
}

const std::string kLazyStored = "!fbuffer_corrupted && key_file.good() && val_file.good()";
const Messages kLazyFilesSeverity1{
    "key_file.size() >= key_file_last_size_",
    "key_file_exists == val_file_exists",
    "key_file_last_size_ == 0 || key_file_exists",
    "val_file .write(reinterpret_cast<const char *>( val_fbuffer.get_buffer()), "
    "val_fbuffer.get_size()) .good()",
    kLazyStored,
    "key_file .write(reinterpret_cast<const char *>( key_fbuffer.get_buffer()), "
    "key_fbuffer.get_size()) .good()",
    kLazyStored};
const Messages kLazyFilesSeverity2{"key_file.is_open()", "key_file.is_open()",
                                   "val_file_.is_open()"};
const Messages kLazyFilesSeverity3{"file_exists(key_fpath_)", "file_exists(key_fpath_)",
                                   "stat(key_fpath_.c_str(), &st) == 0",
                                   "stat(val_fpath_.c_str(), &st) == 0", "emplace_ret.second"};

SCENARIO(fail_everywhere) {
  auto* const module = test::module_of("util/src/cache");
  module->fault_log_level = std::stoi(arguments.at(1));
  module->fault_abort_level = std::stoi(arguments.at(2));
  test::module_of("util/src/mmapped_file")->fault_log_level = 0;
  if (arguments.at(0) == "pieces") {
    fail_at_every_piece();
  } else if (arguments.at(0) == "files") {
    fail_at_every_file();
  } else if (arguments.at(0) == "lazy pieces") {
    fail_at_every_lazy_piece();
  } else if (arguments.at(0) == "lazy files") {
    fail_at_every_lazy_file();
  } else {
    fail_at_every_sequence();
  }
  return 0;
}

Ran fail_everywhere(const std::string& what, int log_level, int abort_level = 0) {
  return test::StoreRoot().run(
      "fail_everywhere", {what, std::to_string(log_level), std::to_string(abort_level)}, "ERROR");
}

// The records of the failed checks, sorted.
Messages checks_reported(const std::string& what, int log_level) {
  Messages checks;
  for (const std::string& message :
       test::without_lines(fail_everywhere(what, log_level).messages())) {
    if (message.rfind("ERROR QV_FAULT_EXPECT", 0) == 0) {
      checks.push_back(message);
    }
  }
  std::sort(checks.begin(), checks.end());
  return checks;
}

// Expects that a threshold of 0 reports nothing, and that each higher one adds the checks of
// its severity: `by_severity` begins with those of severity 1.
void expect_severities(const std::string& what, const std::vector<Messages>& by_severity) {
  Messages expected;
  EXPECT_EQ(checks_reported(what, 0), expected);
  int level = 0;
  for (const Messages& conditions : by_severity) {
    for (const std::string& condition : conditions) {
      expected.push_back(expectation(condition));
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(checks_reported(what, ++level), expected) << level;
  }
}

TEST(StoreSeverity, OfEveryPieceIs1) { expect_severities("pieces", {kPieces}); }

TEST(StoreSeverity, OfTheFilesIsLessTheMoreOrdinaryTheCaseIs) {
  expect_severities("files", {kFilesSeverity1, kFilesSeverity2, kFilesSeverity3});
}

TEST(StoreSeverity, OfEveryPieceOfALazyStoreIs1) {
  expect_severities("lazy pieces", {kLazyPieces});
}

TEST(StoreSeverity, OfALazyStoresFilesIsThatOfABasicStores) {
  expect_severities("lazy files", {kLazyFilesSeverity1, kLazyFilesSeverity2, kLazyFilesSeverity3});
}

TEST(StoreSeverity, OfAHeaderThatCannotBeWrittenIs1) {
  const std::string report = "ERROR Writing header file failed (/dev/full)";
  const Messages silent = fail_everywhere("files", 0).messages();
  EXPECT_EQ(std::count(silent.begin(), silent.end(), report), 0);
  const Messages logged = fail_everywhere("files", 1).messages();
  EXPECT_EQ(std::count(logged.begin(), logged.end(), report), 1);
}

TEST(StoreSeverity, OfTheSequencesIsThatOfTheirUse) {
  const Messages severity1{"file.size() >= file_last_size_", "store_->try_store_diff(diff_map_)",
                           "hdr"};
  const Messages severity2{"loaded_map_last_size_ == 0 || new_keys_loaded", "threshold_env"};
  const Messages severity3{"fallback_to_volatile || (store != nullptr && store->is_valid())",
                           "store_->try_load(loaded_map_)"};
  expect_severities("sequences", {severity1, severity2, severity3});
}

TEST(StoreSeverity, IsWhatEndsTheProcessToo) {
  for (const char* what : {"pieces", "files", "sequences", "lazy pieces", "lazy files"}) {
    EXPECT_TRUE(fail_everywhere(what, 0, 0).exited_with(0)) << what;
    EXPECT_TRUE(fail_everywhere(what, 0, 1).aborted()) << what;
  }
}

}  // namespace
