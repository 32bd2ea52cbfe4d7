#include "src/cache/found_table.h"

#include <cstring>
#include <new>
#include <utility>

#include "src/cache/key_hash.h"

namespace quorvane {
namespace cache {
namespace {

constexpr std::size_t kFirstSlots = 64;

std::size_t after(std::size_t at, std::size_t slots) { return at + 1 == slots ? 0 : at + 1; }

}  // namespace

// The bytes of the key follow it.
struct FoundTable::Node {
  static Node* make(const util::RoBuffer& key, Value&& value, Node* previous) {
    void* const memory = ::operator new(sizeof(Node) + key.get_size());
    auto* const node = new (memory) Node{previous, std::move(value), key.get_size()};
    if (key.get_size() != 0) {
      std::memcpy(static_cast<void*>(node + 1), key.get_buffer(), key.get_size());
    }
    return node;
  }

  const unsigned char* key() const { return reinterpret_cast<const unsigned char*>(this + 1); }
  std::uint64_t hash() const { return key_hash::lasting(key(), size); }

  Node* previous;
  Value value;
  std::size_t size;  // of the key
};

FoundTable::~FoundTable() {
  while (last_ != nullptr) {
    Node* const node = std::exchange(last_, last_->previous);
    node->~Node();
    ::operator delete(node);
  }
}

const FoundTable::Value* FoundTable::find(const util::RoBuffer& key, std::uint64_t hash) const {
  const Slots* const published = published_.load(std::memory_order_acquire);
  if (published == nullptr) {
    return nullptr;
  }
  const std::size_t count = published->tags.size();
  for (std::size_t at = key_hash::scaled(hash, count);; at = after(at, count)) {
    const Tag tag = published->tags[at].load(std::memory_order_acquire);
    if (tag == 0) {
      return nullptr;
    }
    if (tag == tag_of(hash)) {
      const Node* const node = published->nodes[at];
      if (key_hash::is_key(node->key(), node->size, key)) {
        return &node->value;
      }
    }
  }
}

const FoundTable::Value* FoundTable::insert(const util::RoBuffer& key, Value&& value) {
  if (is_full()) {
    grow();
  }
  last_ = Node::make(key, std::move(value), last_);
  ++size_;
  put(*current_, last_);
  return &last_->value;
}

// At most two thirds of the slots are used.
bool FoundTable::is_full() const {
  return current_ == nullptr || (size_ + 1) * 3 > current_->tags.size() * 2;
}

void FoundTable::grow() {
  auto larger =
      std::make_unique<Slots>(current_ == nullptr ? kFirstSlots : current_->tags.size() * 2);
  for (Node* node = last_; node != nullptr; node = node->previous) {
    put(*larger, node);
  }
  larger->outgrown = std::move(current_);
  current_ = std::move(larger);
  published_.store(current_.get(), std::memory_order_release);
}

void FoundTable::put(Slots& slots, const Node* node) {
  const std::uint64_t hash = node->hash();
  std::size_t at = key_hash::scaled(hash, slots.tags.size());
  while (slots.tags[at].load(std::memory_order_relaxed) != 0) {
    at = after(at, slots.tags.size());
  }
  slots.nodes[at] = node;
  slots.tags[at].store(tag_of(hash), std::memory_order_release);
}

}  // namespace cache
}  // namespace quorvane
