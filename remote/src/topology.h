// The servers of a store, and which of them has which keys.
#ifndef QUORVANE_REMOTE_SRC_TOPOLOGY_H_
#define QUORVANE_REMOTE_SRC_TOPOLOGY_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "src/address.h"
#include "src/breaker.h"
#include "src/guarded_mutex.h"
#include "src/node.h"
#include "src/settings.h"
#include "src/slot_map.h"

namespace quorvane {
namespace remote {

class TlsContext;

// As far as this process knows; asks nobody. Any thread; a child of fork calls leave_parent first.
class Topology {
 public:
  using NodePtr = std::shared_ptr<Node>;

  // Both outlive it; `tls` may be null. May throw std::bad_alloc, as all functions here.
  Topology(const Settings& settings, const TlsContext* tls);
  ~Topology();
  Topology(const Topology&) = delete;
  Topology& operator=(const Topology&) = delete;

  // In a child, once: closes the connections of the parent. Otherwise does nothing.
  void leave_parent() noexcept;

  // Whether the servers were ever asked for their slots.
  bool is_known() const;
  // The slots may have moved. Nothing to ask for when there is only one server, which has them all.
  void want_map();
  // Whether the caller should ask for a map: as long as there is none, or when one is wanted, and
  // nobody has asked for a second.
  bool take_turn_to_ask(Breaker::Clock::time_point now);
  // Whom to ask, those that have not failed first.
  std::vector<NodePtr> candidates() const;
  // How many servers have slots. Forgets the others, except those of the settings.
  std::size_t adopt(const SlotMap& map);

  // Who has the slot; null: nobody, or not known.
  NodePtr owner(unsigned slot) const;
  std::size_t owners() const;  // at least 1
  // Where a redirect leads; null: no more servers than a cluster can have.
  NodePtr node_of(const Address& address);
  void moved(unsigned slot, const NodePtr& owner);

 private:
  using Nodes = std::vector<NodePtr>;

  static NodePtr find(const Nodes& nodes, const Address& address);
  NodePtr make(const Address& address);

  const Settings& settings_;
  const TlsContext* const tls_;
  mutable GuardedMutex mutex_;  // the nodes', too
  std::uint64_t generation_;
  Nodes nodes_;                          // all
  Nodes owners_;                         // some of them
  std::vector<std::uint16_t> owner_of_;  // by slot, an index into owners_; empty: not known
  bool is_complete_ = false;             // each slot has an owner
  bool is_wanted_ = false;
  Breaker::Clock::time_point not_before_{};
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_TOPOLOGY_H_
