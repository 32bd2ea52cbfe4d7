// Logs that processes go on writing.
#ifndef TOOLS_QVUTIL_LOG_FOLLOWER_H_
#define TOOLS_QVUTIL_LOG_FOLLOWER_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qvutil/log/logs.h"
#include "qvutil/log/reader.h"

namespace quorvane::tool {

class Follower {
 public:
  // Goes on where `logs` ended. Standard input can't be followed.
  explicit Follower(Logs& logs);

  // The next record that is there; nothing if there is none at the moment.
  std::optional<LogRecord> next();

 private:
  // A rotated file is read on until the next rotation: processes write to it until they open the
  // log anew.
  struct Path {
    std::string path;
    std::vector<std::unique_ptr<RecordReader>> readers;  // the older one first
  };

  static void look_for_rotation(Path& path);
  std::optional<LogRecord> next_read();

  std::vector<Path> paths_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_LOG_FOLLOWER_H_
