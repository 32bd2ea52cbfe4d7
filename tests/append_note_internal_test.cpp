// The note of an append: its bytes, and what undoing the append does to files.
#include <farmhash.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "src/cache/append_note.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

using quorvane::cache::AppendNote;
using Undone = quorvane::cache::AppendNote::Undone;
using test::read_file;
using test::TempDir;
using test::write_file;

namespace {

std::string bytes_of(const AppendNote& note) {
  std::string bytes;
  note.encode(bytes);
  return bytes;
}

// The note as another process reads it.
AppendNote read_again(const AppendNote& note, const TempDir& dir) {
  return AppendNote::decode(dir.path(), bytes_of(note)).value();
}

AppendNote note_of(const TempDir& dir, const std::vector<std::string>& names) {
  AppendNote note(dir.path());
  for (const std::string& name : names) {
    note.add(dir.file(name));
  }
  return note;
}

}  // namespace

TEST(AppendNoteUndo, CutsAFileThatHasGrown) {
  const TempDir dir;
  write_file(dir.file("a"), "before");
  const AppendNote note = note_of(dir, {"a"});
  write_file(dir.file("a"), "before and after");
  EXPECT_EQ(read_again(note, dir).undo(), Undone::something);
  EXPECT_EQ(read_file(dir.file("a")), "before");
}

TEST(AppendNoteUndo, ChangesNothingWhereNothingWasAppended) {
  const TempDir dir;
  write_file(dir.file("a"), "before");
  EXPECT_EQ(read_again(note_of(dir, {"a", "missing"}), dir).undo(), Undone::nothing);
  EXPECT_EQ(read_file(dir.file("a")), "before");
  EXPECT_FALSE(test::exists(dir.file("missing")));
}

TEST(AppendNoteUndo, NeverMakesAFileLonger) {
  const TempDir dir;
  write_file(dir.file("a"), "before");
  const AppendNote note = note_of(dir, {"a"});
  ASSERT_EQ(truncate(dir.file("a").c_str(), 2), 0);
  EXPECT_EQ(note.undo(), Undone::nothing);
  EXPECT_EQ(read_file(dir.file("a")), "be");
}

TEST(AppendNoteUndo, LeavesAFileThatWasPutInThePlaceOfANotedOne) {
  const TempDir dir;
  write_file(dir.file("a"), "before");
  const AppendNote note = note_of(dir, {"a"});
  write_file(dir.file("backup"), "something longer");
  ASSERT_EQ(rename(dir.file("backup").c_str(), dir.file("a").c_str()), 0);
  EXPECT_EQ(note.undo(), Undone::nothing);
  EXPECT_EQ(read_file(dir.file("a")), "something longer");
}

TEST(AppendNoteUndo, DeletesAFileThatTheAppendCreated) {
  const TempDir dir;
  AppendNote note = note_of(dir, {"a"});
  EXPECT_TRUE(note.has_missing());
  note.create_missing();
  EXPECT_EQ(read_file(dir.file("a")), "");
  write_file(dir.file("a"), "new");
  EXPECT_EQ(read_again(note, dir).undo(), Undone::something);
  EXPECT_FALSE(test::exists(dir.file("a")));
}

TEST(AppendNoteUndo, LeavesAFileThatSomebodyElseCreated) {
  const TempDir dir;
  const AppendNote missing = note_of(dir, {"a"});
  AppendNote created = missing;
  created.create_missing();
  write_file(dir.file("backup"), "restored");
  ASSERT_EQ(rename(dir.file("backup").c_str(), dir.file("a").c_str()), 0);
  for (const AppendNote& note : {missing, created}) {
    EXPECT_EQ(note.undo(), Undone::nothing);
    EXPECT_EQ(read_file(dir.file("a")), "restored");
  }
}

// The process was killed after it created the file and before it wrote its second note.
TEST(AppendNoteUndo, DeletesAnEmptyFileThatItKnowsToHaveBeenMissing) {
  const TempDir dir;
  const AppendNote note = note_of(dir, {"a"});
  write_file(dir.file("a"), "");
  EXPECT_EQ(note.undo(), Undone::something);
  EXPECT_FALSE(test::exists(dir.file("a")));
}

TEST(AppendNoteUndo, DeletesTheRestOfFilesThatWereBeingDeleted) {
  const TempDir dir;
  write_file(dir.file("a"), "1");
  write_file(dir.file("b"), "2");
  const AppendNote note = note_of(dir, {"a", "b"});
  unlink(dir.file("a").c_str());
  EXPECT_EQ(read_again(note, dir).undo(), Undone::something);
  EXPECT_FALSE(test::exists(dir.file("b")));
}

// Even the owner of an immutable file can't write to it.
SCENARIO(undo_that_is_refused) {
  AppendNote note(arguments.at(0));
  note.add(arguments.at(0) + "/a");
  write_file(arguments.at(0) + "/a", "before and after");
  test::refuse(SYS_ftruncate, EPERM);
  const bool cut = note.undo() != Undone::failed;
  AppendNote created(arguments.at(0));
  created.add(arguments.at(0) + "/b");
  created.create_missing();
  test::refuse(SYS_unlink, EPERM);
  return !cut && created.undo() == Undone::failed ? 0 : 1;
}

TEST(AppendNoteUndo, SaysThatTheKernelRefusedIt) {
  const TempDir dir;
  write_file(dir.file("a"), "before");
  EXPECT_TRUE(test::run_scenario("undo_that_is_refused", {}, {dir.path()}).exited_with(0));
}

TEST(AppendNoteUndo, FollowsNoLink) {
  const TempDir dir;
  write_file(dir.file("target"), "before");
  const AppendNote note = note_of(dir, {"target"});
  write_file(dir.file("target"), "before and after");
  ASSERT_EQ(rename(dir.file("target").c_str(), dir.file("elsewhere").c_str()), 0);
  ASSERT_EQ(symlink("elsewhere", dir.file("target").c_str()), 0);
  EXPECT_EQ(note.undo(), Undone::nothing);
  EXPECT_EQ(read_file(dir.file("elsewhere")), "before and after");
}

TEST(AppendNoteFiles, OfAnotherDirectoryOrNoRegularOnesAreLeftOut) {
  const TempDir dir;
  const TempDir other;
  ASSERT_EQ(mkdir(dir.file("directory").c_str(), 0755), 0);
  ASSERT_EQ(symlink("nowhere", dir.file("link").c_str()), 0);
  AppendNote note = note_of(dir, {"directory", "link", "directory/below", ".", "..", ""});
  note.add(other.file("a"));
  note.add(dir.path() + "x/a");
  EXPECT_FALSE(note.has_missing());
  EXPECT_EQ(note.paths(), "");
}

TEST(AppendNoteBytes, GiveTheSameNoteAgain) {
  const TempDir dir;
  write_file(dir.file("key_maps"), "1");
  const AppendNote note = note_of(dir, {"key_maps", "val_maps"});
  EXPECT_EQ(bytes_of(read_again(note, dir)), bytes_of(note));
  EXPECT_EQ(note.paths(), dir.file("key_maps") + ", " + dir.file("val_maps"));
  EXPECT_EQ(read_again(note, dir).paths(), note.paths());
}

// A byte that is changed, cut off or added invalidates the note.
TEST(AppendNoteBytes, ThatAreDamagedGiveNoNote) {
  const TempDir dir;
  write_file(dir.file("key_maps"), "1");
  const std::string whole = bytes_of(note_of(dir, {"key_maps", "val_maps"}));
  for (std::size_t i = 0; i < whole.size(); ++i) {
    EXPECT_FALSE(AppendNote::decode(dir.path(), whole.substr(0, i))) << i;
    std::string changed = whole;
    changed[i] = static_cast<char>(changed[i] ^ 0x10);
    EXPECT_FALSE(AppendNote::decode(dir.path(), changed)) << i;
  }
  EXPECT_FALSE(AppendNote::decode(dir.path(), whole + '\0'));
  EXPECT_FALSE(AppendNote::decode(dir.path(), std::string(4096, '\0')));
}

// The bytes of a forged note with a valid checksum.
std::string made_up(const std::string& name) {
  const auto raw = [](auto number) {
    return std::string(reinterpret_cast<const char*>(&number), sizeof(number));
  };
  const std::string file = raw(std::uint64_t{1}) + raw(std::uint64_t{2}) + raw(std::uint64_t{3}) +
                           raw(std::uint32_t{1}) + raw(static_cast<std::uint32_t>(name.size())) +
                           name;
  return raw(std::uint32_t{0x4E565151}) + raw(std::uint32_t{1}) +
         raw(util::Fingerprint64(file.data(), file.size())) + file;
}

TEST(AppendNoteBytes, ThatNameAFileElsewhereGiveNoNote) {
  const TempDir dir;
  EXPECT_TRUE(AppendNote::decode(dir.path(), made_up("maps")));
  for (const std::string& name :
       {std::string(), std::string("/"), std::string("a/b"), std::string("../a"), std::string(".."),
        std::string("."), std::string("a\0b", 3)}) {
    EXPECT_FALSE(AppendNote::decode(dir.path(), made_up(name))) << name;
  }
}
