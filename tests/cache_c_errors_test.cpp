// The cache as C functions: each failure has its errno.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/cache_c.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/c_cache.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

using test::add;
using test::CCache;
using test::find;
using test::get;
using test::open_cache;
using test::Ran;
using test::TempDir;
using testing::IsEmpty;

namespace {

// errno after an attempt to open a cache; 0 if that succeeds.
int error_of_opening(const char* kind, const char* root, const char* name, unsigned flags = 0) {
  errno = EBADF;
  const CCache cache(qv_cache_open(kind, root, name, flags));
  return cache == nullptr ? errno : 0;
}

// errno after a call that must return -1.
int error_of(int result) { return result == -1 ? errno : 0; }

std::vector<std::string> names_in(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

// The parameter is the kind.
class StoredCacheError : public testing::TestWithParam<std::string> {
 protected:
  CCache open(unsigned flags = 0) const { return open_cache(GetParam(), root_.path(), flags); }

  int error_of_opening(unsigned flags = 0) const { return error_of_opening(root_.path(), flags); }

  static int error_of_opening(const std::string& root, unsigned flags = 0) {
    return ::error_of_opening(GetParam().c_str(), root.c_str(), "maps", flags);
  }

  void store_an_entry() const { add(open(), "key", {"1"}); }

  // The file that holds the entries, or their keys.
  std::string file() const {
    return root_.file(GetParam() == "basic"     ? "maps"
                      : GetParam() == "indexed" ? "dat_maps"
                                                : "key_maps");
  }

  Ran run(const std::string& scenario) const {
    chmod(root_.path().c_str(), 0755);
    Ran ran = test::run_scenario(scenario, {}, {GetParam(), root_.path()});
    EXPECT_TRUE(ran.exited_with(0)) << ran.err;
    return ran;
  }

  TempDir root_;
};

INSTANTIATE_TEST_SUITE_P(Kinds, StoredCacheError,
                         testing::Values("basic", "lazy_lookup", "indexed"),
                         [](const auto& kind) { return kind.param; });

// --- arguments ---

TEST(CacheOpenError, IsEinvalForAWrongArgument) {
  const TempDir root;
  const char* const path = root.path().c_str();
  const std::string long_name(300, 'n');
  EXPECT_EQ(error_of_opening(nullptr, path, "maps"), EINVAL);
  EXPECT_EQ(error_of_opening("", path, "maps"), EINVAL);
  EXPECT_EQ(error_of_opening("Basic", path, "maps"), EINVAL);
  for (const char* kind : {"basic", "lazy_lookup", "indexed", "volatile"}) {
    EXPECT_EQ(error_of_opening(kind, path, nullptr), EINVAL) << kind;
    EXPECT_EQ(error_of_opening(kind, path, ""), EINVAL) << kind;
    EXPECT_EQ(error_of_opening(kind, path, "a/b"), EINVAL) << kind;
    EXPECT_EQ(error_of_opening(kind, path, "maps", 4), EINVAL) << kind;
  }
  EXPECT_EQ(error_of_opening("volatile", path, "maps", QV_CACHE_READ_ONLY), EINVAL);
  EXPECT_EQ(error_of_opening("volatile", path, "maps", QV_CACHE_MUST_EXIST), EINVAL);
  EXPECT_EQ(error_of_opening("indexed", path, long_name.c_str()), EINVAL);
  EXPECT_THAT(names_in(root.path()), IsEmpty());
}

TEST(CacheError, IsEinvalForANullOrEmptyArgument) {
  const TempDir root;
  const CCache cache = open_cache("volatile", root.path());
  const void* const atoms[] = {"1", "2"};
  const void* const null_atom[] = {"1", nullptr};
  const std::size_t sizes[] = {1, 1};
  const std::size_t empty_atom[] = {1, 0};
  EXPECT_EQ(error_of(qv_cache_add(nullptr, "key", 3, atoms, sizes, 2)), EINVAL);
  EXPECT_EQ(error_of(qv_cache_add(cache.get(), nullptr, 3, atoms, sizes, 2)), EINVAL);
  EXPECT_EQ(error_of(qv_cache_add(cache.get(), "key", 0, atoms, sizes, 2)), EINVAL);
  EXPECT_EQ(error_of(qv_cache_add(cache.get(), "key", 3, nullptr, sizes, 2)), EINVAL);
  EXPECT_EQ(error_of(qv_cache_add(cache.get(), "key", 3, atoms, nullptr, 2)), EINVAL);
  EXPECT_EQ(error_of(qv_cache_add(cache.get(), "key", 3, atoms, sizes, 0)), EINVAL);
  EXPECT_EQ(error_of(qv_cache_add(cache.get(), "key", 3, null_atom, sizes, 2)), EINVAL);
  EXPECT_EQ(error_of(qv_cache_add(cache.get(), "key", 3, atoms, empty_atom, 2)), EINVAL);
  EXPECT_EQ(error_of(qv_cache_flush(nullptr)), EINVAL);
  EXPECT_EQ(error_of(qv_cache_each(nullptr, &test::append_entry, nullptr)), EINVAL);
  EXPECT_EQ(error_of(qv_cache_each(cache.get(), nullptr, nullptr)), EINVAL);
  EXPECT_EQ(qv_cache_size(cache.get()), 0u);
}

TEST(CacheError, IsEinvalForALookUpWithoutAKey) {
  const TempDir root;
  const CCache cache = open_cache("volatile", root.path());
  const auto error_of_get = [](qv_cache_t* in, const void* key, std::size_t size) {
    errno = EBADF;
    return qv_cache_get(in, key, size) == nullptr ? errno : 0;
  };
  EXPECT_EQ(error_of_get(nullptr, "key", 3), EINVAL);
  EXPECT_EQ(error_of_get(cache.get(), nullptr, 3), EINVAL);
  EXPECT_EQ(error_of_get(cache.get(), "key", 0), EINVAL);
}

TEST(CacheError, ThereIsNoneForANullWhereThatIsFine) {
  const TempDir root;
  const CCache cache = open_cache("volatile", root.path());
  const void* const keys[] = {"key"};
  const std::size_t sizes[] = {3};
  std::size_t size = 7;
  EXPECT_EQ(qv_cache_close(nullptr), 0);
  EXPECT_EQ(qv_cache_size(nullptr), 0u);
  EXPECT_EQ(qv_cache_atoms(nullptr), 0u);
  EXPECT_EQ(qv_cache_atom(nullptr, 0, &size), nullptr);
  EXPECT_EQ(size, 0u);
  qv_cache_prefetch(nullptr, keys, sizes, 1);
  qv_cache_prefetch(cache.get(), nullptr, sizes, 1);
  qv_cache_prefetch(cache.get(), keys, nullptr, 1);
}

// --- the root ---

SCENARIO(open_without_a_root) {
  for (const char* root : {static_cast<const char*>(nullptr), ""}) {
    for (const unsigned flags : {0U, QV_CACHE_READ_ONLY, QV_CACHE_MUST_EXIST}) {
      std::printf("%d ", error_of_opening(arguments.at(0).c_str(), root, "maps", flags) == EINVAL);
    }
  }
  return 0;
}

TEST_P(StoredCacheError, IsEinvalWithoutARoot) {
  EXPECT_EQ(run("open_without_a_root").out, "1 1 1 1 1 1 ");
}

TEST_P(StoredCacheError, IsEnoentIfTheRootIsNoDirectory) {
  test::write_file(root_.file("file"), "");
  for (const char* root : {"none", "file", "file/below"}) {
    EXPECT_EQ(error_of_opening(root_.file(root)), ENOENT) << root;
    EXPECT_EQ(error_of_opening(root_.file(root), QV_CACHE_MUST_EXIST), ENOENT) << root;
    EXPECT_EQ(error_of_opening(root_.file(root), QV_CACHE_READ_ONLY), ENOENT) << root;
  }
}

TEST_P(StoredCacheError, IsEnoentIfAStoreThatMustExistDoesNot) {
  EXPECT_EQ(error_of_opening(QV_CACHE_MUST_EXIST), ENOENT);
  EXPECT_EQ(error_of_opening(QV_CACHE_MUST_EXIST | QV_CACHE_READ_ONLY), ENOENT);
  EXPECT_THAT(names_in(root_.path()), IsEmpty());
}

TEST_P(StoredCacheError, IsEnoentWithoutFilesToReadUnlessTheKindIsBasic) {
  EXPECT_EQ(error_of_opening(QV_CACHE_READ_ONLY), GetParam() == "basic" ? 0 : ENOENT);
  EXPECT_THAT(names_in(root_.path()), IsEmpty());
}

// --- permissions ---

// Root may do anything, so it becomes another user.
bool become_unprivileged() {
  return geteuid() != 0 ||
         (setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0);
}

SCENARIO(open_unprivileged) {
  if (!become_unprivileged()) {
    return 2;
  }
  const char* const kind = arguments.at(0).c_str();
  const char* const root = arguments.at(1).c_str();
  std::printf("%s", strerrorname_np(error_of_opening(kind, root, "maps")));
  return 0;
}

TEST_P(StoredCacheError, IsEaccesIfTheRootMayNotBeSearched) {
  ASSERT_EQ(chmod(root_.path().c_str(), 0755), 0);
  std::filesystem::create_directory(root_.file("closed"));
  ASSERT_EQ(chmod(root_.file("closed").c_str(), 0), 0);
  const Ran ran = test::run_scenario("open_unprivileged", {}, {GetParam(), root_.file("closed")});
  EXPECT_EQ(ran.out, "EACCES");
}

TEST_P(StoredCacheError, IsEaccesIfNoFileMayBeCreated) {
  EXPECT_EQ(run("open_unprivileged").out, "EACCES");
}

TEST_P(StoredCacheError, IsEaccesIfTheLockMayNotBeWritten) {
  store_an_entry();
  EXPECT_EQ(run("open_unprivileged").out, "EACCES");
}

TEST_P(StoredCacheError, IsEaccesIfTheFilesMayNotBeRead) {
  store_an_entry();
  ASSERT_EQ(chmod(root_.file("lock_maps").c_str(), 0666), 0);
  ASSERT_EQ(chmod(file().c_str(), 0), 0);
  EXPECT_EQ(run("open_unprivileged").out, "EACCES");
}

SCENARIO(open_on_a_read_only_file_system) {
  test::refuse(SYS_openat, EROFS, test::When{2, O_RDWR | O_CREAT | O_CLOEXEC});
  test::refuse(SYS_faccessat2, EROFS, test::When{2, R_OK | W_OK});
  std::printf("%s", strerrorname_np(error_of_opening(arguments.at(0).c_str(),
                                                     arguments.at(1).c_str(), "maps")));
  return 0;
}

TEST_P(StoredCacheError, IsErofsOnAReadOnlyFileSystem) {
  EXPECT_EQ(run("open_on_a_read_only_file_system").out, "EROFS");
}

SCENARIO(open_without_descriptors) {
  test::refuse(SYS_openat, EMFILE, test::When{2, O_RDWR | O_CREAT | O_CLOEXEC});
  std::printf("%s", strerrorname_np(error_of_opening(arguments.at(0).c_str(),
                                                     arguments.at(1).c_str(), "maps")));
  return 0;
}

TEST_P(StoredCacheError, IsEioForARefusalThatHasNoOtherNumber) {
  EXPECT_EQ(run("open_without_descriptors").out, "EIO");
}

// --- read-only caches ---

TEST_P(StoredCacheError, IsErofsForAReadOnlyCacheWithAdditions) {
  store_an_entry();
  CCache cache = open(QV_CACHE_READ_ONLY);
  EXPECT_EQ(qv_cache_flush(cache.get()), 0);
  EXPECT_EQ(add(cache, "new", {"2"}), 1);
  EXPECT_EQ(get(cache, "new"), "2");
  EXPECT_EQ(error_of(qv_cache_flush(cache.get())), EROFS);
  EXPECT_EQ(get(cache, "new"), "2");
  EXPECT_EQ(error_of(qv_cache_close(cache.release())), EROFS);
  EXPECT_EQ(listing(open()), "key=1\n");
}

TEST_P(StoredCacheError, ThereIsNoneForAReadOnlyCacheWithoutAdditions) {
  store_an_entry();
  CCache cache = open(QV_CACHE_READ_ONLY);
  EXPECT_EQ(qv_cache_flush(cache.get()), 0);
  EXPECT_EQ(qv_cache_close(cache.release()), 0);
}

// --- damaged and full stores ---

TEST_P(StoredCacheError, IsEioForADamagedStore) {
  test::write_file(file(), "This has never been a cache, however long one looks at its bytes.");
  EXPECT_EQ(error_of_opening(), EIO);
  EXPECT_EQ(error_of_opening(QV_CACHE_MUST_EXIST), EIO);
}

// Lets the files of this process grow up to `bytes`.
void limit_file_size(rlim_t bytes) {
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{bytes, RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &limit);
}

SCENARIO(store_without_room) {
  CCache cache = open_cache(arguments.at(0), arguments.at(1));
  add(cache, "large", {std::string(1 << 20, 'x')});
  limit_file_size(1 << 19);
  const int flushed = error_of(qv_cache_flush(cache.get()));
  const bool is_kept = find(cache, "large") != nullptr;
  const int closed = error_of(qv_cache_close(cache.release()));
  limit_file_size(RLIM_INFINITY);
  std::printf("%s %d %s", strerrorname_np(flushed), is_kept, strerrorname_np(closed));
  return 0;
}

TEST_P(StoredCacheError, IsEioForWhatIsNotStoredForLackOfRoom) {
  EXPECT_EQ(run("store_without_room").out, "EIO 1 EIO");
}

SCENARIO(store_when_there_is_room_again) {
  CCache cache = open_cache("indexed", arguments.at(1));
  add(cache, "large", {std::string(1 << 20, 'x')});
  limit_file_size(1 << 19);
  const int first = qv_cache_flush(cache.get());
  limit_file_size(RLIM_INFINITY);
  const int second = qv_cache_flush(cache.get());
  std::printf("%d %d %d", first, second, qv_cache_close(cache.release()));
  return 0;
}

TEST(IndexedCacheError, IsGoneOnceThereIsRoomAgain) {
  const TempDir root;
  const Ran ran = test::run_scenario("store_when_there_is_room_again", {}, {"", root.path()});
  EXPECT_EQ(ran.out, "-1 0 0");
  EXPECT_NE(get(open_cache("indexed", root.path()), "large"), std::nullopt);
}

// Making an index takes permission to write.
TEST(IndexedCacheError, IsEioForAReadOnlyCacheWithoutItsIndex) {
  const TempDir root;
  add(open_cache("indexed", root.path()), "key", {"1"});
  unlink(root.file("idx_maps").c_str());
  EXPECT_EQ(error_of_opening("indexed", root.path().c_str(), "maps", QV_CACHE_READ_ONLY), EIO);
  EXPECT_EQ(get(open_cache("indexed", root.path()), "key"), "1");
}

// The other kinds have their entries in memory.
TEST(IndexedCacheError, IsEioForAnIterationOverADamagedFile) {
  const TempDir root;
  const CCache cache = open_cache("indexed", root.path());
  for (const char* key : {"a", "b", "c"}) {
    add(cache, key, {std::string(100, 'v')});
  }
  ASSERT_EQ(qv_cache_flush(cache.get()), 0);
  const CCache other = open_cache("indexed", root.path());
  std::string bytes = test::read_file(root.file("dat_maps"));
  const int file = open(root.file("dat_maps").c_str(), O_WRONLY | O_CLOEXEC);
  const auto middle = static_cast<off_t>(bytes.size() / 2);
  ASSERT_EQ(pwrite(file, std::string(200, '?').data(), 200, middle), 200);
  close(file);
  std::string visited;
  EXPECT_EQ(error_of(qv_cache_each(other.get(), &test::append_entry, &visited)), EIO);
  EXPECT_EQ(visited, "");
}

// --- texts ---

TEST(CacheErrorText, DiffersForEachErrorAndIsNeverNull) {
  std::set<std::string> texts;
  for (const int error : {0, EINVAL, ENOENT, EACCES, EROFS, ENOMEM, EIO, ENOTSUP, EBADF}) {
    texts.insert(qv_cache_error_text(error));
  }
  EXPECT_EQ(texts.size(), 9u);
  EXPECT_STREQ(qv_cache_error_text(-1), qv_cache_error_text(EBADF));
}

TEST(CacheErrorText, LeavesErrnoAlone) {
  errno = EBADF;
  qv_cache_error_text(EINVAL);
  qv_cache_error_text(12345);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
