// What several client processes get from one server and from a cluster of three, what an entry and
// a connection take on a server, and what follows for 10^9 entries and 10,000 clients. Prints the
// tables of bench/README.md.
#include <quorvane/cache.h>
#include <quorvane/remote_store.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "now.h"
#include "numbered_key.h"
#include "other_process.h"
#include "redis_nodes.h"

namespace {

using quorvane::cache::Cache;
using quorvane::util::RoBuffer;

constexpr std::uint64_t kEntries = 200'000;
constexpr std::uint64_t kSingle = 20'000;  // of each client, in each round
constexpr std::uint64_t kBatched = 100'000;
constexpr std::uint64_t kAdded = 20'000;
constexpr std::uint64_t kBatch = 1000;
constexpr int kRounds = 3;
constexpr int kConnections = 500;

void check(bool holds) {
  if (!holds) {
    std::abort();
  }
}

std::unique_ptr<Cache> open_cache() {
  auto cache = std::make_unique<Cache>("bench", quorvane::cache::make_remote_store("bench"), false);
  std::vector<bench::Key> absent;
  for (std::uint64_t i = 0; i < 100; ++i) {
    absent.push_back(bench::numbered_key((std::uint64_t{1} << 60) + i));
  }
  for (const bench::Key& key : absent) {  // connects to all nodes
    check(cache->get_value(RoBuffer::view(key.data(), key.size())) == nullptr);
  }
  return cache;
}

void add(Cache& cache, std::uint64_t from, std::uint64_t to) {
  for (const auto& [key, value] : bench::numbered_entries(from, to)) {
    check(cache.add_value(key, value));
  }
}

void fill() {
  for (std::uint64_t from = 0; from < kEntries; from += 10 * kBatch) {
    const auto cache = open_cache();
    add(*cache, from, std::min(from + 10 * kBatch, kEntries));
    check(cache->flush());
  }
}

// --- a client ---

// Present keys in an order of its own.
std::vector<bench::Key> some_keys(std::uint64_t client, std::uint64_t count) {
  std::vector<bench::Key> keys;
  keys.reserve(count);
  for (std::uint64_t i = 0; i < count; ++i) {
    keys.push_back(bench::numbered_key((client * 7919 + i * 3) % kEntries));
  }
  return keys;
}

// Caches end with the next round, so that this takes no measured time.
void look_up_singly(std::uint64_t client) {
  static std::unique_ptr<Cache> cache;
  cache = open_cache();
  const auto keys = some_keys(client, kSingle);
  bench::OtherProcess::send(0);
  bench::OtherProcess::wait_for_order();
  for (const bench::Key& key : keys) {
    check(cache->get_value(RoBuffer::view(key.data(), key.size())) != nullptr);
  }
}

void look_up_in_batches(std::uint64_t client) {
  static std::unique_ptr<Cache> cache;
  cache = open_cache();
  const auto keys = some_keys(client, kBatched);
  std::vector<RoBuffer> views;
  views.reserve(keys.size());
  for (const bench::Key& key : keys) {
    views.push_back(RoBuffer::view(key.data(), key.size()));
  }
  bench::OtherProcess::send(0);
  bench::OtherProcess::wait_for_order();
  for (std::uint64_t at = 0; at < kBatched; at += kBatch) {
    cache->prefetch(views.data() + at, kBatch);
  }
  check(cache->size() == kBatched);
}

void store(std::uint64_t client) {
  static std::uint64_t next = (client + 1) << 40;
  static std::unique_ptr<Cache> cache;
  cache = open_cache();
  add(*cache, next, next + kAdded);
  next += kAdded;
  bench::OtherProcess::send(0);
  bench::OtherProcess::wait_for_order();
  check(cache->flush());
}

using Step = void (*)(std::uint64_t client);
const Step kSteps[] = {look_up_singly, look_up_in_batches, store};
const std::uint64_t kOperations[] = {kSingle, kBatched, kAdded};

[[noreturn]] void be_client(std::uint64_t client, std::uint64_t step) {
  for (;;) {
    bench::OtherProcess::wait_for_order();
    kSteps[step](client);
    bench::OtherProcess::send(0);
  }
}

// --- measurements ---

struct Speed {
  double a_second = 0;   // operations of all clients
  double server_us = 0;  // processor time of the servers for one of them
};

using Clients = std::vector<std::unique_ptr<bench::OtherProcess>>;

void order_all(const Clients& clients) {
  for (const auto& client : clients) {
    client->order();
  }
}

void await_all(const Clients& clients) {
  for (const auto& client : clients) {
    client->report();
  }
}

// The best round counts.
Speed measure(const bench::RedisNodes& nodes, std::uint64_t count, std::uint64_t step) {
  Clients clients;
  for (std::uint64_t i = 0; i < count; ++i) {
    clients.push_back(std::make_unique<bench::OtherProcess>(std::vector<std::string>{
        "remote_scale_bench", "client", std::to_string(i), std::to_string(step)}));
  }
  const double operations = static_cast<double>(count * kOperations[step]);
  Speed best{0, 1e9};
  for (int round = 0; round < kRounds; ++round) {
    order_all(clients);  // to open a cache
    await_all(clients);
    const double busy_before = nodes.processor_time();
    const double begin = bench::now();
    order_all(clients);
    await_all(clients);
    best.a_second = std::max(best.a_second, operations / (bench::now() - begin) * 1e6);
    best.server_us =
        std::min(best.server_us, (nodes.processor_time() - busy_before) / operations * 1e6);
  }
  return best;
}

struct Memory {
  double an_entry = 0;
  double busy_connection = 0;
  double idle_connection = 0;
};

// Bytes of a connection that has just sent a batch, and of one that has been quiet for a while.
void measure_connections(const bench::RedisNodes& nodes, Memory& memory) {
  const double before = nodes.sum("mem_clients_normal");
  std::vector<redisContext*> connections;
  for (int i = 0; i < kConnections; ++i) {
    connections.push_back(redisConnect("127.0.0.1", nodes.first().port()));
    for (std::uint64_t number = 0; number < kBatch; ++number) {
      const std::string key = std::string("qv1{}\0bench\0", 12) + bench::numbered_key(number);
      redisAppendCommand(connections.back(), "GET %b", key.data(), key.size());
    }
    for (std::uint64_t reply = 0; reply < kBatch; ++reply) {
      void* taken = nullptr;
      check(redisGetReply(connections.back(), &taken) == REDIS_OK);
      freeReplyObject(taken);
    }
  }
  const auto each = [&] { return (nodes.sum("mem_clients_normal") - before) / kConnections; };
  memory.busy_connection = each();
  sleep(6);  // the server shrinks buffers that were not needed for some seconds
  memory.idle_connection = each();
  for (redisContext* connection : connections) {
    redisFree(connection);
  }
}

struct Costs {
  Memory memory;
  double single_us = 1e9;  // processor time of the servers for a look-up
  double batched_us = 1e9;
};

Costs measure_nodes(int count) {
  const bench::RedisNodes nodes(count);
  setenv("QV_CACHE_REMOTE", nodes.addresses().c_str(), 1);
  Costs costs;
  const double before = nodes.sum("used_memory");
  fill();
  costs.memory.an_entry = (nodes.sum("used_memory") - before) / static_cast<double>(kEntries);
  if (count == 1) {
    measure_connections(nodes, costs.memory);
  }
  for (const std::uint64_t clients : {1U, 2U, 4U}) {
    const Speed single = measure(nodes, clients, 0);
    const Speed batched = measure(nodes, clients, 1);
    const Speed stored = measure(nodes, clients, 2);
    std::printf("| %d | %d | %.0f | %.0f | %.0f |\n", count, static_cast<int>(clients),
                single.a_second, batched.a_second, stored.a_second);
    costs.single_us = std::min(costs.single_us, single.server_us);
    costs.batched_us = std::min(costs.batched_us, batched.server_us);
  }
  return costs;
}

void print_costs(const Costs& one, const Costs& three) {
  const auto row = [](const char* what, double of_one, double of_three) {
    std::printf("| %s | %.1f | %.1f |\n", what, of_one, of_three);
  };
  std::printf("\n| on the servers | one | a cluster of three |\n|---|---|---|\n");
  row("bytes of an entry of 32 + 256", one.memory.an_entry, three.memory.an_entry);
  row("processor time of a single look-up, us", one.single_us, three.single_us);
  row("processor time of one in a batch, us", one.batched_us, three.batched_us);
}

// What follows for 10^9 entries and 10,000 clients, each with a connection to each node.
void print_model(const Costs& cluster, const Memory& connection) {
  constexpr double kClients = 10'000;
  constexpr double kNodeBytes = 48e9;
  const double bytes = 1e9 * cluster.memory.an_entry;
  const double masters = std::ceil(bytes / kNodeBytes);
  std::printf("\n| 10^9 entries, 10,000 clients | |\n|---|---|\n");
  std::printf("| memory of the entries | %.0f GB |\n", bytes / 1e9);
  std::printf("| masters of 48 GB | %.0f |\n", masters);
  std::printf("| single look-ups a second | %.1f M |\n", masters / cluster.single_us);
  std::printf("| look-ups a second in batches | %.1f M |\n", masters / cluster.batched_us);
  std::printf("| connections of a node, idle | %.0f MB |\n",
              kClients * connection.idle_connection / 1e6);
  std::printf("| connections of a node, all busy | %.0f MB |\n",
              kClients * connection.busy_connection / 1e6);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "client") {
    be_client(std::strtoull(argv[2], nullptr, 10), std::strtoull(argv[3], nullptr, 10));
  }
  bench::root();
  for (const char* limit : {"QV_CACHE_REMOTE_CONNECT_TIMEOUT", "QV_CACHE_REMOTE_TIMEOUT",
                            "QV_CACHE_REMOTE_STORE_TIMEOUT"}) {
    setenv(limit, "60000", 1);  // other programs may delay this one
  }
  std::printf("| servers | clients | single look-ups a second | prefetched | stored |\n");
  std::printf("|---|---|---|---|---|\n");
  const Costs one = measure_nodes(1);
  const Costs three = measure_nodes(3);
  print_costs(one, three);
  print_model(three, one.memory);
  return 0;
}
