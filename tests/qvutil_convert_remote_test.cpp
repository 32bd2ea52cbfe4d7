// A cache that goes to a real server.
#include <gtest/gtest.h>
#include <quorvane/remote_store.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/redis_servers.h"
#include "support/scenario.h"
#include "support/tool_caches.h"

namespace {

using quorvane::tool::Kind;
using test::Content;

const Content kSome{{std::string("\0\xff", 2), {"1"}}, {"ccc", {std::string(300, 'x'), "y"}}};

test::Ran convert(const std::string& root, const std::string& servers,
                  const test::Arguments& arguments) {
  test::Arguments all{"convert"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return test::run_program(QV_BINARY_DIR "/bin/qvutil", all,
                           {{"QV_CACHE_STORE_ROOT", root},
                            {"QV_CACHE_REMOTE", servers},
                            {"QV_CACHE_REMOTE_CONNECT_TIMEOUT", "20000"},
                            {"QV_CACHE_REMOTE_TIMEOUT", "20000"},
                            {"QV_CACHE_REMOTE_STORE_TIMEOUT", "60000"}});
}

std::vector<std::string> value_of(quorvane::cache::LookupStore& store, const std::string& key) {
  std::vector<quorvane::util::RoBuffer> value;
  store.find(test::buffer(key), value);
  std::vector<std::string> atoms;
  for (const auto& atom : value) {
    atoms.push_back(test::bytes_of(atom));
  }
  return atoms;
}

TEST(QvutilConvertRemote, StoresAllEntriesOnTheServer) {
  test::RedisServer server;
  const test::TempDir root;
  ASSERT_TRUE(test::store_all({Kind::indexed, root.path(), "demo"}, kSome));
  const test::Ran ran = convert(root.path(), server.address(), {"demo", "--to", "remote"});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "demo (remote): 2 entries\n");
  EXPECT_EQ(server.number({"DBSIZE"}), 2U);

  setenv("QV_CACHE_REMOTE", server.address().c_str(), 1);
  setenv("QV_CACHE_REMOTE_CONNECT_TIMEOUT", "20000", 1);
  setenv("QV_CACHE_REMOTE_TIMEOUT", "20000", 1);
  const auto store = quorvane::cache::make_remote_store("demo");
  auto* const lookup = dynamic_cast<quorvane::cache::LookupStore*>(store.get());
  ASSERT_NE(lookup, nullptr);
  quorvane::cache::EntryMap none;
  ASSERT_TRUE(store->try_load(none));
  for (const auto& [key, atoms] : kSome) {
    EXPECT_EQ(value_of(*lookup, key), atoms);
  }
}

TEST(QvutilConvertRemote, FailsWhenTheServerIsGone) {
  test::RedisServer server;
  const std::string address = server.address();
  server.kill();
  const test::TempDir root;
  ASSERT_TRUE(test::store_all({Kind::basic, root.path(), "demo"}, kSome));
  const test::Ran ran = convert(root.path(), address, {"demo", "--to", "remote"});
  EXPECT_TRUE(ran.exited_with(2)) << ran.out;
  EXPECT_NE(ran.err.find("can't write demo on the servers"), std::string::npos) << ran.err;
}

TEST(QvutilConvertRemote, SaysWhatToInstallWithoutTheLibrary) {
  const test::TempDir libraries;
  test::write_file(libraries.file("libqvremote.so.1"), "");  // hides an installed one
  const test::TempDir root;
  ASSERT_TRUE(test::store_all({Kind::basic, root.path(), "demo"}, kSome));
  const test::Ran ran =
      test::run_program(QV_BINARY_DIR "/bin/qvutil", {"convert", "demo", "--to", "remote"},
                        {{"QV_CACHE_STORE_ROOT", root.path()},
                         {"QV_CACHE_REMOTE", "127.0.0.1:1"},
                         {"LD_LIBRARY_PATH", libraries.path()}});
  EXPECT_TRUE(ran.exited_with(2)) << ran.out;
  EXPECT_EQ(ran.err,
            "qvutil convert: servers need libqvremote.so.1, of the package libqvremote1: " +
                libraries.file("libqvremote.so.1") + ": file too short\n");
}

}  // namespace
