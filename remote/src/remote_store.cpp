#include "src/remote_store.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <string_view>
#include <utility>

#include "src/records.h"
#include "src/tls_context.h"
#include "src/wire_format.h"

namespace quorvane {
namespace remote {
namespace {

using Clock = std::chrono::steady_clock;

// What is sent to a server at a time.
constexpr std::size_t kMostRequests = 1000;
constexpr std::size_t kMostBytes = std::size_t{1} << 20;

constexpr std::int64_t kSecondsBetweenRefusals = 60;

}  // namespace

RemoteStore::RemoteStore(const std::string& name, const std::optional<Settings>& settings)
    : name_(name) {
  if (settings.has_value() && !settings->servers.empty()) {
    open(*settings);
  }
}

void RemoteStore::open(const Settings& settings) {
  prefix_ = key_prefix(settings.name_space, name_);
  if (prefix_.empty()) {
    QV_LOG(g_module, ERROR, "The name of a cache on servers has a NUL");
    return;
  }
  std::unique_ptr<TlsContext> tls;
  if (!settings.ca_file.empty()) {
    std::string error;
    tls = TlsContext::make(settings.ca_file, settings.cert_file, settings.key_file, error);
    if (tls == nullptr) {
      QV_LOG(g_module, ERROR, "Cache servers can't be used: %s", error.c_str());
      return;
    }
  }
  timeout_ = settings.timeout;
  store_timeout_ = settings.store_timeout;
  max_value_ = settings.max_value;
  read_only_ = settings.read_only;
  stats_.emplace();
  cluster_ = std::make_unique<Cluster>(settings, std::move(tls));
}

bool RemoteStore::try_load(cache::EntryMap& out) {
  out.clear();
  return is_valid();
}

// --- look-ups ---

bool RemoteStore::find(const util::RoBuffer& key, Value& value) {
  const auto answer = known_.look_up(key, value);
  if (answer != KnownEntries::Answer::unknown || !is_valid()) {
    return answer == KnownEntries::Answer::found;
  }
  Batch batch;
  Request& request = batch.requests.emplace_back();
  request.key = wire_key(prefix_, key);
  const auto start = Clock::now();
  cluster_->perform(batch, Deadline(timeout_));
  LookupCounts counts;
  const bool is_found = take(key, request, counts, value);
  stats_->add(counts, Clock::now() - start);
  return is_found;
}

bool RemoteStore::find_at_once(const util::RoBuffer& key, Value& value) {
  return known_.look_up(key, value) == KnownEntries::Answer::found;
}

// What another version of the library has stored is a miss. So is what is damaged. Neither is
// overwritten.
bool RemoteStore::take(const util::RoBuffer& key, Request& request, LookupCounts& counts,
                       Value& value) {
  const bool is_answered = request.outcome == Request::Outcome::answered;
  if (is_answered && request.reply->type == REDIS_REPLY_STRING) {
    const std::string_view bytes = text_of(*request.reply);
    if (bytes.size() <= max_value_ && decode(request.key, bytes, value)) {
      ++counts.hits;
      known_.add(key, value);
      return true;
    }
  }
  if (is_answered &&
      (request.reply->type == REDIS_REPLY_STRING || request.reply->type == REDIS_REPLY_NIL)) {
    ++counts.misses;
    known_.add_absent(key);
    return false;
  }
  if (request.outcome == Request::Outcome::refused) {
    report_refusal(request.why);
  }
  ++(request.outcome == Request::Outcome::skipped ? counts.skipped : counts.errors);
  return false;
}

void RemoteStore::report_refusal(const std::string& why) {
  const auto now =
      std::chrono::duration_cast<std::chrono::seconds>(Clock::now().time_since_epoch()).count();
  std::int64_t until = quiet_until_.load(std::memory_order_relaxed);
  if (now >= until && quiet_until_.compare_exchange_strong(until, now + kSecondsBetweenRefusals,
                                                           std::memory_order_relaxed)) {
    QV_LOG(g_module, WARN, "A cache server refuses look-ups in %s cache: %s", name_.c_str(),
           why.c_str());
  }
}

void RemoteStore::prefetch(const util::RoBuffer* keys, std::size_t count) {
  if (!is_valid()) {
    return;
  }
  try {
    std::vector<const util::RoBuffer*> unknown;
    Value value;
    for (const util::RoBuffer* key = keys; key != keys + count; ++key) {
      if (known_.look_up(*key, value) == KnownEntries::Answer::unknown) {
        unknown.push_back(key);
      }
    }
    std::size_t done = 0;
    bool go_on = true;
    while (go_on && done < unknown.size()) {
      const std::size_t some = std::min(kMostRequests * cluster_->owners(), unknown.size() - done);
      go_on = prefetch_some(unknown.data() + done, some);
      done += some;
    }
  } catch (const std::bad_alloc&) {
    // The look-ups will do without it.
  }
}

// False when it isn't worthwhile to go on.
bool RemoteStore::prefetch_some(const util::RoBuffer* const* keys, std::size_t count) {
  Batch batch;
  batch.requests.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    batch.requests[i].key = wire_key(prefix_, *keys[i]);
  }
  const auto start = Clock::now();
  cluster_->perform(batch, Deadline(timeout_));
  LookupCounts counts;
  for (std::size_t i = 0; i < count; ++i) {
    Value value;
    take(*keys[i], batch.requests[i], counts, value);
  }
  stats_->add(counts, Clock::now() - start);
  return counts.hits + counts.misses != 0;
}

bool RemoteStore::try_read_all(cache::EntryMap& out) {
  known_.copy_to(out);
  return true;
}

// --- additions ---

void RemoteStore::Loss::add(std::uint64_t more, const std::string& reason) {
  if (more != 0 && why.empty()) {
    why = reason;
  }
  entries += more;
}

bool RemoteStore::try_store_diff(const cache::EntryMap& diff) {
  if (diff.empty() || !is_valid()) {
    return is_valid();
  }
  Loss loss;
  if (read_only_) {
    loss.add(diff.size(), "QV_CACHE_REMOTE_READ_ONLY is set");
  } else {
    store_all(diff, loss);
  }
  if (loss.entries != 0) {
    QV_LOG(g_module, WARN, "%lu of %zu additions to %s cache are not on the servers: %s",
           loss.entries, diff.size(), name_.c_str(), loss.why.c_str());
  }
  if (loss.entries == 0) {
    known_.count_stored();
  }
  return loss.entries == 0;
}

void RemoteStore::store_all(const cache::EntryMap& diff, Loss& loss) {
  const Deadline deadline(store_timeout_);
  Batch batch;
  std::vector<Additions> sent;
  Additions next = diff.begin();
  bool go_on = true;
  while (go_on && next != diff.end() && !deadline.has_passed()) {
    next = fill(batch, sent, next, diff.end(), loss);
    if (!sent.empty()) {
      cluster_->perform(batch, deadline.at_most(timeout_));
      go_on = take_stored(sent, batch, loss);
    }
  }
  loss.add(static_cast<std::uint64_t>(std::distance(next, diff.end())),
           "the time for storing is over");
  // The cache will hand all of them over again. What servers have taken that then failed may be
  // gone, so it is sent again; otherwise what is left gets all of the time.
  skips_stored_ = loss.entries != 0 && !loss.is_by_server;
}

// Takes so many of the additions that each server gets one chunk, more or less. Returns the rest.
RemoteStore::Additions RemoteStore::fill(Batch& batch, std::vector<Additions>& sent, Additions next,
                                         Additions end, Loss& loss) const {
  const std::size_t owners = cluster_->owners();
  batch.requests.clear();
  sent.clear();
  std::size_t bytes = 0;
  for (; next != end && sent.size() < kMostRequests * owners && bytes < kMostBytes * owners;
       ++next) {
    if (skips_stored_ && known_.has_stored(next->first)) {
      continue;
    }
    if (encoded_size(next->second) > max_value_) {
      loss.add(1, "the value is larger than QV_CACHE_REMOTE_MAX_VALUE");
      continue;
    }
    Request request;
    request.key = wire_key(prefix_, next->first);
    request.value = encode(request.key, next->second);
    if (request.value->empty()) {
      loss.add(1, "the value has no atom or an empty one");
      continue;
    }
    bytes += request.key.size() + request.value->size();
    batch.requests.push_back(std::move(request));
    sent.push_back(next);
  }
  return next;
}

// False when the servers take nothing more. One that has the key already has taken it.
bool RemoteStore::take_stored(const std::vector<Additions>& sent, Batch& batch, Loss& loss) {
  bool go_on = false;
  for (std::size_t i = 0; i < sent.size(); ++i) {
    const Request& request = batch.requests[i];
    if (request.outcome == Request::Outcome::answered) {
      known_.add_stored(sent[i]->first);
    } else {
      loss.add(1, request.why);
      loss.is_by_server = true;
    }
    go_on = go_on || request.outcome == Request::Outcome::answered ||
            request.outcome == Request::Outcome::failed;
  }
  return go_on;
}

}  // namespace remote
}  // namespace quorvane
