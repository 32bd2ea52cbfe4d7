// Looks over a server's bytes before they are parsed.
#ifndef QUORVANE_REMOTE_SRC_REPLY_GUARD_H_
#define QUORVANE_REMOTE_SRC_REPLY_GUARD_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace quorvane {
namespace remote {

// hiredis' reader allocates the arrays that a reply announces, and keeps the bytes of a reply
// until the reply is whole. This guard follows the replies' form, counts them, and
// refuses those that would take more memory than they may. A string that is too large is skipped,
// unless it is in an array: the replies after it are still of use. The guard checks no more than
// that; the reader refuses the rest of what is malformed.
class ReplyGuard {
 public:
  // The most that a reply may have: bytes of its strings and lines, and kElementSize for each
  // element of an array.
  explicit ReplyGuard(std::size_t limit) : limit_(limit) {}

  // For the replies to come; not within one.
  void set_limit(std::size_t limit) { limit_ = limit; }

  // Follows the bytes to their end, or to where skipping begins or ends, and returns how many it
  // has followed.
  std::size_t follow(std::string_view bytes);

  // Why the reader mustn't get them, and nothing is followed afterwards; null if it may.
  const char* why() const { return why_; }

  // Whether the next bytes are those of a string that is skipped. The reader gets neither them
  // nor the header that came right before. The reply counts as ended.
  bool is_skipping() const { return is_skipping_; }

  // Replies that have ended, and whether another has begun.
  std::size_t ended() const { return ended_; }
  bool is_within_reply() const { return open_items_ != 0; }

  // What hiredis needs for an element: the object and the pointer to it.
  static constexpr std::size_t kElementSize = 56;

 private:
  enum class State { type, number, text, bulk };

  void take_type(char type);
  void take_number(char next);
  void end_number();
  std::size_t take_text(std::string_view bytes);
  std::size_t take_bulk(std::string_view bytes);
  void end_item();
  void charge(std::size_t count, std::size_t size);

  std::size_t limit_;
  State state_ = State::type;
  const char* why_ = nullptr;
  std::size_t ended_ = 0;
  std::size_t open_items_ = 0;  // of the reply under way: announced, and not yet whole
  std::size_t left_ = 0;        // of the limit, for the reply under way
  char type_ = 0;
  bool is_element_ = false;  // of an array
  bool is_skipping_ = false;
  bool after_return_ = false;
  bool is_negative_ = false;
  int digits_ = 0;
  std::uint64_t number_ = 0;
  std::size_t bulk_left_ = 0;  // with the line end
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_REPLY_GUARD_H_
