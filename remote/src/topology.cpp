#include "src/topology.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "src/fork_guard.h"
#include "src/process_generation.h"

namespace quorvane {
namespace remote {
namespace {

constexpr std::chrono::seconds kBetweenMaps{1};

// A server could send redirects to ever new addresses.
constexpr std::size_t kMostNodes = 4096;

}  // namespace

Topology::Topology(const Settings& settings, const TlsContext* tls)
    : settings_(settings), tls_(tls), generation_(process_generation()) {
  for (const Address& address : settings.servers) {
    if (find(nodes_, address) == nullptr) {
      nodes_.push_back(make(address));
    }
  }
}

Topology::~Topology() { leave_parent(); }

void Topology::leave_parent() noexcept {
  Node::Links inherited;  // destroyed last, without the mutex
  const fork_guard::Lock lock(mutex_.get());
  const std::uint64_t present = process_generation();
  if (std::exchange(generation_, present) == present) {
    return;
  }
  for (const NodePtr& node : nodes_) {
    node->drop_inherited(inherited);
  }
}

bool Topology::is_known() const {
  const fork_guard::Lock lock(mutex_.get());
  return !owner_of_.empty();
}

void Topology::want_map() {
  const fork_guard::Lock lock(mutex_.get());
  is_wanted_ = nodes_.size() > 1 || !is_complete_;
}

bool Topology::take_turn_to_ask(Breaker::Clock::time_point now) {
  const fork_guard::Lock lock(mutex_.get());
  if (owner_of_.empty()) {
    return true;
  }
  if (!is_wanted_ || now < not_before_) {
    return false;
  }
  is_wanted_ = false;
  not_before_ = now + kBetweenMaps;
  return true;
}

std::vector<Topology::NodePtr> Topology::candidates() const {
  std::vector<std::pair<unsigned, NodePtr>> by_failures;
  Nodes nodes;
  {
    const fork_guard::Lock lock(mutex_.get());
    nodes = nodes_;
  }
  for (NodePtr& node : nodes) {
    by_failures.emplace_back(node->failures(), std::move(node));
  }
  std::stable_sort(by_failures.begin(), by_failures.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  nodes.clear();
  std::transform(by_failures.begin(), by_failures.end(), std::back_inserter(nodes),
                 [](auto& node) { return std::move(node.second); });
  return nodes;
}

// A map may name as many servers as there are slots, so none is searched for one by one.
std::size_t Topology::adopt(const SlotMap& map) {
  Nodes gone;  // destroyed last, without the mutex
  Nodes nodes;
  Nodes owners;
  const fork_guard::Lock lock(mutex_.get());
  std::unordered_map<std::string_view, NodePtr> known;
  for (const NodePtr& node : nodes_) {
    known.emplace(node->address().text, node);
  }
  const auto node_at = [&](const Address& address) {
    const auto [entry, is_new] = known.try_emplace(address.text);
    if (is_new) {
      entry->second = make(address);
    }
    return entry->second;
  };
  std::unordered_set<const Node*> kept;
  const auto keep = [&](const NodePtr& node) {
    if (kept.insert(node.get()).second) {
      nodes.push_back(node);
    }
  };
  for (const Address& address : map.masters) {
    owners.push_back(node_at(address));
    keep(owners.back());
  }
  for (const Address& address : settings_.servers) {
    keep(node_at(address));
  }
  for (const NodePtr& node : nodes_) {
    if (node->is_in_use()) {
      keep(node);
    }
  }
  owner_of_ = map.owner;
  is_complete_ = std::all_of(owner_of_.begin(), owner_of_.end(),
                             [&](std::uint16_t owner) { return owner < owners.size(); });
  owners_.swap(owners);
  gone.swap(nodes_);
  nodes_.swap(nodes);
  return owners_.size();
}

Topology::NodePtr Topology::owner(unsigned slot) const {
  const fork_guard::Lock lock(mutex_.get());
  const bool is_known = slot < owner_of_.size() && owner_of_[slot] < owners_.size();
  return is_known ? owners_[owner_of_[slot]] : nullptr;
}

std::size_t Topology::owners() const {
  const fork_guard::Lock lock(mutex_.get());
  return std::max<std::size_t>(owners_.size(), 1);
}

Topology::NodePtr Topology::node_of(const Address& address) {
  const fork_guard::Lock lock(mutex_.get());
  NodePtr node = find(nodes_, address);
  if (node == nullptr && nodes_.size() < kMostNodes) {
    node = make(address);
    nodes_.push_back(node);
  }
  return node;
}

void Topology::moved(unsigned slot, const NodePtr& owner) {
  const fork_guard::Lock lock(mutex_.get());
  // A newer map may have come meanwhile, and forgotten the server.
  const bool is_known = std::find(nodes_.begin(), nodes_.end(), owner) != nodes_.end();
  if (slot >= owner_of_.size() || !is_known) {
    return;
  }
  auto found = std::find(owners_.begin(), owners_.end(), owner);
  if (found == owners_.end()) {
    found = owners_.insert(found, owner);
  }
  owner_of_[slot] = static_cast<std::uint16_t>(found - owners_.begin());
}

// The caller holds the mutex.
Topology::NodePtr Topology::find(const Nodes& nodes, const Address& address) {
  const auto found = std::find_if(nodes.begin(), nodes.end(),
                                  [&](const NodePtr& node) { return node->address() == address; });
  return found == nodes.end() ? nullptr : *found;
}

Topology::NodePtr Topology::make(const Address& address) {
  return std::make_shared<Node>(address, tls_, mutex_.get());
}

}  // namespace remote
}  // namespace quorvane
