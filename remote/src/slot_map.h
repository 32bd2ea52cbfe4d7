// Which server of a cluster has which keys.
#ifndef QUORVANE_REMOTE_SRC_SLOT_MAP_H_
#define QUORVANE_REMOTE_SRC_SLOT_MAP_H_

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "src/address.h"
#include "src/reply.h"

namespace quorvane {
namespace remote {

constexpr unsigned kSlots = 16384;

// The slot of a key: CRC16 (XMODEM) of its hash tag, or of all of it, modulo the number of slots.
unsigned slot_of(std::string_view wire_key);

// The masters of a cluster and their slots.
struct SlotMap {
  static constexpr std::uint16_t kNobody = 0xffff;

  std::vector<Address> masters;
  std::vector<std::uint16_t> owner;  // by slot: an index into `masters`, or kNobody

  // Of one server that isn't in a cluster.
  static SlotMap single(const Address& server);

  // Of the reply to CLUSTER SLOTS from the server `asked`. Nothing when the reply isn't one:
  // slots out of range or given twice, ports out of range, nested wrongly, hosts that aren't
  // numeric. Slots that the reply leaves out are nobody's. May throw std::bad_alloc.
  static std::optional<SlotMap> parse(const redisReply& reply, const Address& asked);
};

// "MOVED 3999 127.0.0.1:6381", "ASK ...": where to go. Nothing for any other reply. May throw
// std::bad_alloc.
struct Redirect {
  bool is_ask;
  unsigned slot;
  Address to;

  static std::optional<Redirect> parse(const redisReply& reply, const Address& asked);
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_SLOT_MAP_H_
