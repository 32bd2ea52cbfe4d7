#include "qvutil/log/logs.h"

#include <algorithm>
#include <string>
#include <utility>

#include "qvutil/log/rotated.h"
#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {

Log::Log(std::string path, std::vector<std::unique_ptr<Source>> sources, bool is_growing)
    : path_(std::move(path)), is_growing_(is_growing) {
  for (auto& source : sources) {
    size_ += source->size();
    sources_.push_back(std::move(source));
  }
}

void Log::advance() {
  current_.reset();
  while (!current_) {
    if (reader_ != nullptr) {
      try {
        current_ = reader_->next(is_growing_ && sources_.empty());
      } catch (const Failure&) {
        reader_.reset();
        throw;
      }
    }
    if (!current_ && sources_.empty()) {
      return;
    }
    if (!current_) {
      finished_ = done();
      reader_ = std::make_unique<RecordReader>(std::move(sources_.front()));
      sources_.pop_front();
    }
  }
  if (const auto head = current_->head()) {
    time_ = std::max(time_, std::string(head->time));
  }
}

Logs::Logs(Console& console, const std::vector<std::string>& paths, bool is_growing)
    : console_(console) {
  FileIds seen;
  std::vector<Failure> failures;
  for (const std::string& path : paths) {
    logs_.emplace_back(path, open_rotated(path, seen, failures), is_growing);
  }
  for (const Failure& failure : failures) {
    if (seen.empty() && &failure == &failures.back()) {
      throw failure;
    }
    complain_of(failure);
  }
  std::uint64_t size = 0;
  for (const Log& log : logs_) {
    size += log.size();
  }
  progress_.emplace(console, logs_.size() == 1 ? "reading " + shown(paths.front()) : "reading logs",
                    size);
  for (std::size_t i = 0; i < logs_.size(); ++i) {
    advance(i);
  }
}

// Not at each record: to ask the kernel how far it is takes as long as to read one.
void Logs::show_progress() {
  if (++records_ % 1024 != 0) {
    return;
  }
  std::uint64_t done = 0;
  for (const Log& log : logs_) {
    done += log.done();
  }
  progress_->at(done);
}

// The heap has the earliest record on top.
bool Logs::is_later(std::size_t a, std::size_t b) const {
  const int order = logs_[a].time().compare(logs_[b].time());
  return order != 0 ? order > 0 : a > b;
}

void Logs::complain_of(const Failure& failure) {
  console_.err() << "qvutil: " << failure.what() << std::endl;
  has_damage_ = true;
}

void Logs::advance(std::size_t index) {
  for (bool has_failed = true; has_failed;) {
    try {
      logs_[index].advance();
      has_failed = false;
    } catch (const Failure& failure) {
      complain_of(failure);
    }
  }
  if (logs_[index].current()) {
    heap_.push_back(index);
    std::push_heap(heap_.begin(), heap_.end(), [this](auto a, auto b) { return is_later(a, b); });
  }
}

std::optional<LogRecord> Logs::next() {
  if (heap_.empty()) {
    progress_.reset();
    return std::nullopt;
  }
  show_progress();
  std::pop_heap(heap_.begin(), heap_.end(), [this](auto a, auto b) { return is_later(a, b); });
  const std::size_t index = heap_.back();
  heap_.pop_back();
  auto record = logs_[index].take();
  advance(index);
  return record;
}

}  // namespace quorvane::tool
