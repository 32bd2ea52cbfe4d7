#include "src/cluster.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "src/cache/trace.h"
#include "src/records.h"
#include "src/reply_class.h"
#include "src/uncancellable.h"

namespace quorvane {
namespace remote {
namespace {

constexpr int kMostRedirects = 3;

// Beside a value, an error or a line has room.
constexpr std::size_t kReplyHead = std::size_t{64} << 10;

// In the worst case each slot is a range of its own. One with three servers that have long names
// takes less than this.
constexpr std::size_t kLargestRange = 4096;
constexpr std::size_t kLargestMap = kSlots * kLargestRange;

void end(Request& request, Request::Outcome outcome, const std::string& why) {
  request.outcome = outcome;
  request.why = why;
}

}  // namespace

// What goes to one server in a round.
struct Cluster::Part {
  explicit Part(Topology::NodePtr to) : node(std::move(to)) {}

  Topology::NodePtr node;
  Requests requests;
  std::optional<Exchange> exchange;
};

Cluster::Cluster(const Settings& settings, std::unique_ptr<TlsContext> tls)
    : settings_(settings),
      tls_(std::move(tls)),
      ttl_(std::to_string(settings.ttl)),
      topology_(settings_, tls_.get()) {}

// A cancelled thread must not leave a command without its reply.
void Cluster::perform(Batch& batch, const Deadline& deadline) {
  const Uncancellable uncancellable;
  topology_.leave_parent();
  const bool asked = find_owners(batch.requests.size(), deadline);
  if (!topology_.is_known()) {
    for (Request& request : batch.requests) {
      end(request, asked ? Request::Outcome::failed : Request::Outcome::skipped,
          "no server can be reached");
    }
    return;
  }
  Requests waiting;
  waiting.reserve(batch.requests.size());
  for (Request& request : batch.requests) {
    waiting.push_back(&request);
  }
  while (!waiting.empty() && !deadline.has_passed()) {
    waiting = perform_round(waiting, batch, deadline);
  }
  for (Request* request : waiting) {
    end(*request, Request::Outcome::failed, "no reply within the time limit");
  }
}

// --- which server has which keys ---

// False when no server was asked although it should have been.
bool Cluster::find_owners(std::size_t lookups, const Deadline& deadline) {
  if (!topology_.take_turn_to_ask(Breaker::Clock::now())) {
    return true;
  }
  // With a map, even an old one, most requests can do without a new one, so it gets half
  // of the time.
  const bool is_known = topology_.is_known();
  const auto half = std::max(settings_.timeout / 2, std::chrono::milliseconds(1));
  const Deadline limit = is_known ? deadline.at_most(half) : deadline;
  bool asked = false;
  for (const Topology::NodePtr& node : topology_.candidates()) {
    if (limit.has_passed()) {
      break;
    }
    if (!node->may_try(is_known ? 0 : lookups)) {
      continue;
    }
    asked = true;
    const std::optional<SlotMap> map = ask_for_map(node, limit);
    if (!map.has_value()) {
      continue;
    }
    const std::size_t owners = topology_.adopt(*map);
    if (!has_connected_.exchange(true)) {
      QV_LOG(g_module, INFO, "Connected to cache servers, nodes = %zu, namespace = \"%s\"", owners,
             settings_.name_space.c_str());
    }
    break;
  }
  return asked;
}

// A server without cluster support has all slots, and so, until it redirects, has one whose slots
// this user may not see.
std::optional<SlotMap> Cluster::ask_for_map(const Topology::NodePtr& node,
                                            const Deadline& deadline) {
  Exchange exchange(node, false, kLargestMap);
  const std::vector<Exchange*> one{&exchange};
  Exchange::connect(one, settings_, deadline);
  exchange.add({"CLUSTER", "SLOTS"});
  Exchange::finish(one, deadline);
  if (exchange.has_failed()) {
    return std::nullopt;
  }
  const redisReply& reply = *exchange.replies().front();
  if (is_error(reply)) {
    return SlotMap::single(node->address());
  }
  std::optional<SlotMap> map = SlotMap::parse(reply, node->address());
  if (!map.has_value()) {
    node->failed("its map of slots can't be read");
  }
  return map;
}

// --- one round: a pipeline to each server ---

// Returns those that were redirected.
Cluster::Requests Cluster::perform_round(const Requests& waiting, Batch& batch,
                                         const Deadline& deadline) {
  cache::Trace traced(this, trace::Operation::remote_round_trip);
  Parts parts = divide(waiting);
  keep_allowed(parts, batch);
  std::vector<Exchange*> exchanges;
  for (const auto& part : parts) {
    exchanges.push_back(&*part->exchange);
  }
  Exchange::connect(exchanges, settings_, deadline);
  for (const auto& part : parts) {
    send(*part);
  }
  Exchange::finish(exchanges, deadline);
  Requests redirected;
  for (const auto& part : parts) {
    take_replies(*part, batch, redirected);
  }
  traced.end(waiting.size());
  return redirected;
}

Cluster::Parts Cluster::divide(const Requests& waiting) {
  Parts parts;
  for (Request* request : waiting) {
    Topology::NodePtr node = request->redirected_to;
    if (node == nullptr) {
      node = topology_.owner(slot_of(request->key));
    }
    if (node == nullptr) {
      end(*request, Request::Outcome::failed, "no server has the key's slot");
      topology_.want_map();
      continue;
    }
    auto part = std::find_if(parts.begin(), parts.end(),
                             [&](const auto& other) { return other->node == node; });
    if (part == parts.end()) {
      part = parts.insert(part, std::make_unique<Part>(std::move(node)));
    }
    (*part)->requests.push_back(request);
  }
  return parts;
}

// Keeps the parts whose servers may be asked.
void Cluster::keep_allowed(Parts& parts, const Batch& batch) {
  const auto is_closed = [&](const Part& part) {
    const auto& closed = batch.closed_for_writing;
    return std::find(closed.begin(), closed.end(), part.node) != closed.end();
  };
  const auto is_skipped = [&](const std::unique_ptr<Part>& part) {
    if (is_closed(*part)) {
      for (Request* request : part->requests) {
        end(*request, Request::Outcome::refused, "the server takes no additions");
      }
      return true;
    }
    const auto lookups = std::count_if(part->requests.begin(), part->requests.end(),
                                       [](const Request* one) { return !one->value.has_value(); });
    if (part->node->may_try(static_cast<std::size_t>(lookups))) {
      part->exchange.emplace(part->node, true, settings_.max_value + kReplyHead);
      return false;
    }
    for (Request* request : part->requests) {
      end(*request, Request::Outcome::skipped, "the server didn't answer before");
    }
    topology_.want_map();  // another server may have taken its place
    return true;
  };
  parts.erase(std::remove_if(parts.begin(), parts.end(), is_skipped), parts.end());
}

void Cluster::send(Part& part) {
  std::vector<std::string_view> words;
  for (const Request* request : part.requests) {
    if (request->is_asking) {
      part.exchange->add({"ASKING"});
    }
    if (!request->value.has_value()) {
      words = {"GET", request->key};
    } else if (settings_.ttl == 0) {
      words = {"SET", request->key, *request->value, "NX"};
    } else {
      words = {"SET", request->key, *request->value, "NX", "EX", ttl_};
    }
    part.exchange->add(words);
  }
}

void Cluster::take_replies(Part& part, Batch& batch, Requests& redirected) {
  std::vector<Reply>& replies = part.exchange->replies();
  if (part.exchange->has_failed()) {
    topology_.want_map();
  }
  std::size_t next = 0;
  for (Request* request : part.requests) {
    next += std::exchange(request->is_asking, false) ? 1 : 0;
    if (next >= replies.size()) {
      end(*request, Request::Outcome::failed, part.exchange->error());
      continue;
    }
    Reply reply = std::move(replies[next++]);
    if (!is_error(*reply)) {
      request->outcome = Request::Outcome::answered;
      request->reply = std::move(reply);
    } else if (take_error(*request, part.node, *reply, batch)) {
      redirected.push_back(request);
    }
  }
}

// Whether it is to be sent again.
bool Cluster::take_error(Request& request, const Topology::NodePtr& node, const redisReply& error,
                         Batch& batch) {
  if (const auto to = Redirect::parse(error, node->address())) {
    return redirect(request, *to);
  }
  if (means_failure(error)) {
    end(request, Request::Outcome::failed, code_of(error));
    topology_.want_map();
    return false;
  }
  end(request, Request::Outcome::refused, code_of(error));
  if (request.value.has_value() && means_no_writing(error)) {
    auto& closed = batch.closed_for_writing;
    if (std::find(closed.begin(), closed.end(), node) == closed.end()) {
      closed.push_back(node);
    }
  }
  return false;
}

bool Cluster::redirect(Request& request, const Redirect& redirect) {
  request.redirected_to = topology_.node_of(redirect.to);
  if (++request.redirects > kMostRedirects || request.redirected_to == nullptr) {
    end(request, Request::Outcome::failed, "redirected too often");
    topology_.want_map();
    return false;
  }
  request.is_asking = redirect.is_ask;
  if (!redirect.is_ask) {
    topology_.moved(redirect.slot, request.redirected_to);
  }
  return true;
}

}  // namespace remote
}  // namespace quorvane
