// The file with the password for the servers.
#ifndef QUORVANE_REMOTE_SRC_PASSWORD_FILE_H_
#define QUORVANE_REMOTE_SRC_PASSWORD_FILE_H_

#include <optional>
#include <string>

namespace quorvane {
namespace remote {

// The file's first line, without its newline: 1 to 4096 bytes. Otherwise nothing, and `error`
// names the file and says why; it never holds a part of the content. Doesn't wait: anything
// but a regular file is an error. Logs one WARN record in the process when other users can read
// such a file. Any thread. May throw std::bad_alloc.
std::optional<std::string> read_password(const std::string& path, std::string& error);

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_PASSWORD_FILE_H_
