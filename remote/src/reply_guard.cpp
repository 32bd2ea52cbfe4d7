#include "src/reply_guard.h"

#include <hiredis/hiredis.h>

#include <algorithm>

namespace quorvane {
namespace remote {
namespace {

static_assert(ReplyGuard::kElementSize == sizeof(redisReply) + sizeof(redisReply*));

constexpr char kMalformed[] = "a malformed reply";
constexpr std::size_t kLineEnd = 2;
constexpr int kMostDigits = 19;  // their numbers fit into 64 bits

// Servers have no longer strings by default.
constexpr std::uint64_t kLongestSkipped = std::uint64_t{512} << 20;

}  // namespace

std::size_t ReplyGuard::follow(std::string_view bytes) {
  const std::size_t size = bytes.size();
  const bool was_skipping = is_skipping_;
  while (!bytes.empty() && why_ == nullptr && is_skipping_ == was_skipping) {
    std::size_t taken = 1;
    switch (state_) {
      case State::type:
        take_type(bytes.front());
        break;
      case State::number:
        take_number(bytes.front());
        break;
      case State::text:
        taken = take_text(bytes);
        break;
      case State::bulk:
        taken = take_bulk(bytes);
        break;
    }
    bytes.remove_prefix(taken);
  }
  return size - bytes.size();
}

void ReplyGuard::take_type(char type) {
  is_element_ = open_items_ != 0;
  if (!is_element_) {
    open_items_ = 1;
    left_ = limit_;
  }
  type_ = type;
  after_return_ = false;
  if (type == '$' || type == '*') {
    state_ = State::number;
    is_negative_ = false;
    digits_ = 0;
    number_ = 0;
  } else if (type == '+' || type == '-' || type == ':') {
    state_ = State::text;
  } else {
    why_ = kMalformed;
  }
}

void ReplyGuard::take_number(char next) {
  if (after_return_) {
    if (next == '\n') {
      end_number();
    } else {
      why_ = kMalformed;
    }
  } else if (next >= '0' && next <= '9' && digits_ < kMostDigits) {
    number_ = number_ * 10 + static_cast<std::uint64_t>(next - '0');
    ++digits_;
  } else if (next == '-' && digits_ == 0 && !is_negative_) {
    is_negative_ = true;
  } else if (next == '\r' && digits_ > 0) {
    after_return_ = true;
  } else {
    why_ = kMalformed;
  }
}

void ReplyGuard::end_number() {
  if (is_negative_) {  // -1 stands for nil
    if (number_ == 1) {
      end_item();
    } else {
      why_ = kMalformed;
    }
  } else if (type_ == '$') {
    bulk_left_ = number_ + kLineEnd;
    if (!is_element_ && number_ > left_ && number_ <= kLongestSkipped) {
      end_item();
      is_skipping_ = true;
    } else {
      charge(number_, 1);
    }
    state_ = State::bulk;
  } else {
    charge(number_, kElementSize);
    open_items_ += number_;
    end_item();
  }
}

// hiredis' reader takes a line up to the first "\r\n", too.
std::size_t ReplyGuard::take_text(std::string_view bytes) {
  if (after_return_ && bytes.front() == '\n') {
    end_item();
    return 1;
  }
  const std::size_t at = bytes.find('\r');
  after_return_ = at != bytes.npos;
  const std::size_t taken = after_return_ ? at + 1 : bytes.size();
  charge(taken, 1);
  return taken;
}

std::size_t ReplyGuard::take_bulk(std::string_view bytes) {
  if (bulk_left_ > kLineEnd) {
    const std::size_t taken = std::min(bytes.size(), bulk_left_ - kLineEnd);
    bulk_left_ -= taken;
    return taken;
  }
  if (bytes.front() != (bulk_left_ == kLineEnd ? '\r' : '\n')) {
    why_ = kMalformed;
  } else if (--bulk_left_ > 0) {
    return 1;
  } else if (is_skipping_) {
    is_skipping_ = false;
    state_ = State::type;
  } else {
    end_item();
  }
  return 1;
}

void ReplyGuard::end_item() {
  state_ = State::type;
  if (--open_items_ == 0) {
    ++ended_;
  }
}

void ReplyGuard::charge(std::size_t count, std::size_t size) {
  if (count > left_ / size) {
    why_ = "a reply beyond the limit";
  } else {
    left_ -= count * size;
  }
}

}  // namespace remote
}  // namespace quorvane
