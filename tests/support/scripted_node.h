// Scripted servers that hold entries, and stores that ask them.
#ifndef TESTS_SUPPORT_SCRIPTED_NODE_H_
#define TESTS_SUPPORT_SCRIPTED_NODE_H_

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "src/remote_store.h"
#include "src/settings.h"
#include "src/slot_map.h"
#include "src/wire_format.h"
#include "support/scripted_server.h"
#include "support/store_bytes.h"

namespace test {

inline const std::string kNamespace = "ns";
inline const std::string kCacheName = "maps";

inline std::string on_servers(const std::string& key) {
  return quorvane::remote::wire_key(quorvane::remote::key_prefix(kNamespace, kCacheName),
                                    buffer(key));
}
inline std::string encoded(const std::string& key, const std::vector<std::string>& atoms) {
  return quorvane::remote::encode(on_servers(key), buffers(atoms));
}
inline unsigned slot_of(const std::string& key) {
  return quorvane::remote::slot_of(on_servers(key));
}

// Answers as a single server does, unless `instead` gives an answer.
class ScriptedNode {
 public:
  using Instead = std::function<std::optional<Answer>(const Words& command)>;

  explicit ScriptedNode(Instead instead = nullptr)
      : instead_(std::move(instead)),
        server_([this](const Words& command) { return answer(command); }) {}

  ScriptedServer& server() { return server_; }
  const std::string& address() const { return server_.address(); }
  std::size_t count_of(const std::string& name) const { return server_.count_of(name); }

  void put(const std::string& key, const std::vector<std::string>& atoms) {
    put_raw(on_servers(key), encoded(key, atoms));
  }
  void put_raw(const std::string& wire_key, const std::string& value) {
    const std::lock_guard<std::mutex> lock(mutex_);
    entries_[wire_key] = value;
  }
  void forget() {
    const std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
  }
  bool has(const std::string& key) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return entries_.count(on_servers(key)) != 0;
  }
  std::map<std::string, std::string> entries() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }
  void answer_instead(Instead instead) {
    const std::lock_guard<std::mutex> lock(mutex_);
    instead_ = std::move(instead);
  }

 private:
  Answer answer(const Words& command) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (instead_ != nullptr) {
      if (const auto answer = instead_(command)) {
        return *answer;
      }
    }
    if (command[0] == "GET") {
      const auto found = entries_.find(command.at(1));
      return found == entries_.end() ? nil() : bulk(found->second);
    }
    if (command[0] == "SET") {
      return entries_.emplace(command.at(1), command.at(2)).second ? ok() : nil();
    }
    if (command[0] == "CLUSTER") {
      return "-ERR This instance has cluster support disabled\r\n";
    }
    return command[0] == "PING" ? "+PONG\r\n" : ok();
  }

  mutable std::mutex mutex_;
  std::map<std::string, std::string> entries_;
  Instead instead_;
  ScriptedServer server_;  // last: its thread uses the others
};

inline ScriptedNode::Instead answering(const std::string& name, const Answer& answer) {
  return [=](const Words& command) {
    return command[0] == name ? std::optional<Answer>(answer) : std::nullopt;
  };
}

// A range of slots and the port of its server.
struct SlotRange {
  unsigned first;
  unsigned last;
  std::uint16_t port;
};

inline std::string slots_reply(const std::vector<SlotRange>& ranges) {
  const auto number = [](auto value) { return ":" + std::to_string(value) + "\r\n"; };
  std::string reply = "*" + std::to_string(ranges.size()) + "\r\n";
  for (const SlotRange& range : ranges) {
    reply += "*3\r\n" + number(range.first) + number(range.last) + "*3\r\n" + bulk("127.0.0.1") +
             number(range.port) + bulk(std::string(40, 'a'));
  }
  return reply;
}

// No time limit ends before the machine has had plenty of time.
inline quorvane::remote::Settings settings_of(const std::vector<std::string>& servers) {
  quorvane::remote::Settings settings;
  for (const std::string& server : servers) {
    settings.servers.push_back(quorvane::remote::Address::parse(server).value());
  }
  settings.name_space = kNamespace;
  settings.connect_timeout = settings.timeout = settings.store_timeout = std::chrono::seconds(20);
  return settings;
}

// "[atom][atom]", or "none".
inline std::string found(quorvane::cache::LookupStore& store, const std::string& key) {
  std::vector<quorvane::util::RoBuffer> value;
  if (!store.find(buffer(key), value)) {
    return "none";
  }
  std::string text;
  for (const quorvane::util::RoBuffer& atom : value) {
    text += "[" + bytes_of(atom) + "]";
  }
  return text;
}

inline void prefetch(quorvane::cache::LookupStore& store, const std::vector<std::string>& keys) {
  const std::vector<quorvane::util::RoBuffer> all = buffers(keys);
  store.prefetch(all.data(), all.size());
}

inline std::vector<std::string> numbered_keys(std::size_t count) {
  std::vector<std::string> keys;
  for (std::size_t i = 0; i < count; ++i) {
    keys.push_back("key " + std::to_string(i));
  }
  return keys;
}

}  // namespace test

#endif  // TESTS_SUPPORT_SCRIPTED_NODE_H_
