// Any bytes as a server's replies, in any pieces: the connection ends, done or failed, and gives no
// more replies than commands. Replies that were admitted take no more than they may. Each is read
// as a map of slots and as a redirect, too; what that gives can be used.
//
// The first byte of an input is the number of commands, the second the size of the pieces; what is
// left is what the server sends before it closes.
#include <poll.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "src/address.h"
#include "src/connection.h"
#include "src/slot_map.h"

using quorvane::remote::Address;
using quorvane::remote::Connection;
using quorvane::remote::kSlots;
using quorvane::remote::Redirect;
using quorvane::remote::SlotMap;
using quorvane::remote::Stream;

namespace {

constexpr std::size_t kLimit = 4096;
const Address kAsked = Address::parse("127.0.0.1:7000").value();

class FakeStream final : public Stream {
 public:
  FakeStream(std::string_view bytes, std::size_t piece) : bytes_(bytes), piece_(piece) {}

  int fd() const override { return -1; }
  Io connect() override { return Io::done; }
  Io send(const char*, std::size_t size, std::size_t& sent) override {
    sent = size;
    return Io::done;
  }
  // Every other time, nothing has come.
  Io receive(char* data, std::size_t size, std::size_t& received) override {
    waits_ = !waits_;
    if (waits_) {
      return Io::wants_read;
    }
    received = std::min({size, piece_, bytes_.size()});
    bytes_.copy(data, received);
    bytes_.remove_prefix(received);
    return Io::done;
  }
  bool has_pending() const override { return false; }
  bool is_quiet() override { return bytes_.empty(); }
  std::string error() const override { return "none"; }

 private:
  std::string_view bytes_;
  const std::size_t piece_;
  bool waits_ = false;
};

// What a reply counts towards the limit.
std::size_t size_of(const redisReply& reply) {
  std::size_t size = reply.type == REDIS_REPLY_INTEGER ? 0 : reply.len;
  for (std::size_t i = 0; i < reply.elements; ++i) {
    size += sizeof(redisReply) + sizeof(redisReply*) + size_of(*reply.element[i]);
  }
  return size;
}

void demand(bool holds) {
  if (!holds) {
    std::abort();
  }
}

void read_as_map(const redisReply& reply, const Address& asked) {
  const auto map = SlotMap::parse(reply, asked);
  if (!map.has_value()) {
    return;
  }
  demand(map->owner.size() == kSlots && map->masters.size() <= kSlots);
  for (const std::uint16_t owner : map->owner) {
    demand(owner == SlotMap::kNobody || owner < map->masters.size());
  }
  for (const Address& master : map->masters) {
    demand(!master.is_unix() && Address::parse(master.text) == master);
  }
}

void read_as_redirect(const redisReply& reply, const Address& asked) {
  const auto redirect = Redirect::parse(reply, asked);
  demand(!redirect.has_value() ||
         (redirect->slot < kSlots && Address::parse(redirect->to.text) == redirect->to));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  const std::size_t commands = data[0] % 8U + 1;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
  Connection connection(std::make_unique<FakeStream>(bytes, data[1] + 1U), kLimit);
  for (std::size_t i = 0; i < commands; ++i) {
    connection.add({"GET", "key"});
  }
  // Every byte is a piece at most, with a wait before it; then the stream closes.
  for (std::size_t i = 0; i < 2 * size + 4 && connection.events() != 0; ++i) {
    connection.advance();
  }
  demand(connection.events() == 0);
  demand(connection.is_done() != connection.has_failed());
  demand(connection.has_failed() != connection.error().empty());
  const bool is_done = connection.is_done();
  const auto replies = connection.take_replies();
  demand(is_done ? replies.size() == commands : replies.size() <= commands);
  for (const auto& reply : replies) {
    demand(size_of(*reply) <= kLimit);
    read_as_map(*reply, kAsked);
    read_as_redirect(*reply, kAsked);
  }
  return 0;
}
