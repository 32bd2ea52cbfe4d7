// Look-ups and additions on their way to the servers.
#ifndef QUORVANE_REMOTE_SRC_CLUSTER_H_
#define QUORVANE_REMOTE_SRC_CLUSTER_H_

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "src/deadline.h"
#include "src/exchange.h"
#include "src/reply.h"
#include "src/settings.h"
#include "src/tls_context.h"
#include "src/topology.h"

namespace quorvane {
namespace remote {

// One look-up or addition, and what came of it.
struct Request {
  enum class Outcome {
    pending,
    answered,  // see `reply`, which is no error
    refused,   // the server answered with an error
    failed,    // no answer
    skipped,   // not asked, since the server didn't answer before
  };

  std::string key;                   // on the servers
  std::optional<std::string> value;  // what to store; none: look the key up

  Outcome outcome = Outcome::pending;
  Reply reply;
  std::string why;  // unless it is answered; holds no key or value

  // The cluster's own.
  Topology::NodePtr redirected_to;
  bool is_asking = false;
  int redirects = 0;
};

// Requests that are sent together, or in turn.
struct Batch {
  std::vector<Request> requests;
  // Servers that take no additions, and so get no more of this batch.
  std::vector<Topology::NodePtr> closed_for_writing;
};

// All servers of a store. Any thread; a child of fork may use its copy, which connects itself.
class Cluster {
 public:
  // `tls` may be null. May throw std::bad_alloc.
  Cluster(const Settings& settings, std::unique_ptr<TlsContext> tls);

  // Asks all servers that are concerned at once, follows redirects, and gives every request its
  // outcome before the deadline. May throw std::bad_alloc.
  void perform(Batch& batch, const Deadline& deadline);

  // Over how many servers the keys are spread, as far as known.
  std::size_t owners() const { return topology_.owners(); }

 private:
  using Requests = std::vector<Request*>;
  struct Part;
  using Parts = std::vector<std::unique_ptr<Part>>;

  bool find_owners(std::size_t lookups, const Deadline& deadline);
  std::optional<SlotMap> ask_for_map(const Topology::NodePtr& node, const Deadline& deadline);
  Requests perform_round(const Requests& waiting, Batch& batch, const Deadline& deadline);
  Parts divide(const Requests& waiting);
  void keep_allowed(Parts& parts, const Batch& batch);
  void send(Part& part);
  void take_replies(Part& part, Batch& batch, Requests& redirected);
  bool take_error(Request& request, const Topology::NodePtr& node, const redisReply& error,
                  Batch& batch);
  bool redirect(Request& request, const Redirect& redirect);

  const Settings settings_;
  const std::unique_ptr<TlsContext> tls_;
  const std::string ttl_;
  Topology topology_;
  std::atomic<bool> has_connected_{false};
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_CLUSTER_H_
