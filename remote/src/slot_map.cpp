#include "src/slot_map.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <string>
#include <unordered_map>
#include <utility>

namespace quorvane {
namespace remote {
namespace {

constexpr std::array<std::uint16_t, 256> make_crc_table() {
  std::array<std::uint16_t, 256> table{};
  for (unsigned byte = 0; byte < table.size(); ++byte) {
    unsigned crc = byte << 8;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 0x8000) != 0 ? (crc << 1) ^ 0x1021 : crc << 1;
    }
    table[byte] = static_cast<std::uint16_t>(crc);
  }
  return table;
}

constexpr std::array<std::uint16_t, 256> kCrcTable = make_crc_table();

std::uint16_t crc16(std::string_view bytes) {
  unsigned crc = 0;
  for (const char byte : bytes) {
    crc = (crc << 8) ^ kCrcTable[((crc >> 8) ^ static_cast<unsigned char>(byte)) & 0xff];
  }
  return static_cast<std::uint16_t>(crc);
}

// What is between the first brace and the next closing one; all of the key if that is nothing.
std::string_view hashed_part(std::string_view key) {
  const std::size_t open = key.find('{');
  if (open == key.npos) {
    return key;
  }
  const std::size_t close = key.find('}', open + 1);
  return close == key.npos || close == open + 1 ? key : key.substr(open + 1, close - open - 1);
}

bool is_array(const redisReply& reply, std::size_t at_least) {
  return reply.type == REDIS_REPLY_ARRAY && reply.elements >= at_least;
}

// An integer from `least` to `most`.
std::optional<unsigned> number_of(const redisReply& reply, unsigned least, unsigned most) {
  if (reply.type != REDIS_REPLY_INTEGER || reply.integer < least || reply.integer > most) {
    return std::nullopt;
  }
  return static_cast<unsigned>(reply.integer);
}

// The same in decimal digits.
std::optional<unsigned> number_in(std::string_view text, unsigned least, unsigned most) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < least || number > most) {
    return std::nullopt;
  }
  return number;
}

constexpr unsigned kMostPort = std::numeric_limits<std::uint16_t>::max();

// Of [host, port, ...]. A server that doesn't know its own address gives "" or nil as the host.
std::optional<Address> address_of(const redisReply& node, const Address& asked) {
  if (!is_array(node, 2)) {
    return std::nullopt;
  }
  const redisReply& host = *node.element[0];
  const std::optional<unsigned> port = number_of(*node.element[1], 1, kMostPort);
  const bool is_host = host.type == REDIS_REPLY_STRING || host.type == REDIS_REPLY_NIL;
  if (!port || !is_host) {
    return std::nullopt;
  }
  return Address::of(host.type == REDIS_REPLY_NIL ? std::string_view() : text_of(host),
                     static_cast<std::uint16_t>(*port), asked);
}

// Fills a map range by range. No two ranges may share a slot, so there are never more masters than
// slots, whatever the server sends.
class Builder {
 public:
  explicit Builder(const Address& asked) : asked_(asked) {
    map_.owner.assign(kSlots, SlotMap::kNobody);
  }

  // Of [first slot, last slot, master, ...].
  bool add(const redisReply& range) {
    if (!is_array(range, 3)) {
      return false;
    }
    const std::optional<unsigned> first = number_of(*range.element[0], 0, kSlots - 1);
    const std::optional<unsigned> last = number_of(*range.element[1], 0, kSlots - 1);
    if (!first || !last || *first > *last) {
      return false;
    }
    std::optional<Address> master = address_of(*range.element[2], asked_);
    return master && give(*first, *last, std::move(*master));
  }

  SlotMap take() { return std::move(map_); }

 private:
  bool give(unsigned first, unsigned last, Address master) {
    const auto begin = map_.owner.begin() + first;
    const auto end = map_.owner.begin() + last + 1;
    if (std::any_of(begin, end, [](std::uint16_t owner) { return owner != SlotMap::kNobody; })) {
      return false;
    }
    const auto next = static_cast<std::uint16_t>(map_.masters.size());
    const auto [known, is_new] = indices_.emplace(master.text, next);
    if (is_new) {
      map_.masters.push_back(std::move(master));
    }
    std::fill(begin, end, known->second);
    return true;
  }

  const Address& asked_;
  SlotMap map_;
  std::unordered_map<std::string, std::uint16_t> indices_;  // of the masters, by their text
};

}  // namespace

unsigned slot_of(std::string_view wire_key) { return crc16(hashed_part(wire_key)) % kSlots; }

SlotMap SlotMap::single(const Address& server) {
  return {{server}, std::vector<std::uint16_t>(kSlots, 0)};
}

std::optional<SlotMap> SlotMap::parse(const redisReply& reply, const Address& asked) {
  if (!is_array(reply, 0)) {
    return std::nullopt;
  }
  Builder builder(asked);
  for (std::size_t i = 0; i < reply.elements; ++i) {
    if (!builder.add(*reply.element[i])) {
      return std::nullopt;
    }
  }
  return builder.take();
}

std::optional<Redirect> Redirect::parse(const redisReply& reply, const Address& asked) {
  constexpr std::string_view kMoved = "MOVED ";
  constexpr std::string_view kAsk = "ASK ";
  const bool is_ask = is_error(reply, kAsk);
  if (!is_ask && !is_error(reply, kMoved)) {
    return std::nullopt;
  }
  const std::string_view words = text_of(reply).substr(is_ask ? kAsk.size() : kMoved.size());
  const std::size_t blank = words.find(' ');
  // An IPv6 address has colons of its own.
  const std::size_t colon = words.rfind(':');
  if (blank == words.npos || colon == words.npos || colon < blank) {
    return std::nullopt;
  }
  const std::optional<unsigned> slot = number_in(words.substr(0, blank), 0, kSlots - 1);
  const std::optional<unsigned> port = number_in(words.substr(colon + 1), 1, kMostPort);
  if (!slot || !port) {
    return std::nullopt;
  }
  std::optional<Address> to = Address::of(words.substr(blank + 1, colon - blank - 1),
                                          static_cast<std::uint16_t>(*port), asked);
  return to ? std::optional(Redirect{is_ask, *slot, std::move(*to)}) : std::nullopt;
}

}  // namespace remote
}  // namespace quorvane
