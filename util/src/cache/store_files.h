// What the stores do with whole files.
#ifndef QUORVANE_SRC_CACHE_STORE_FILES_H_
#define QUORVANE_SRC_CACHE_STORE_FILES_H_

#include <cstdint>
#include <string>

#include <quorvane/buffer.h>
#include <quorvane/mmapped_file.h>

namespace quorvane {
namespace cache {

bool file_exists(const std::string& path);

// Maps all of a file for reading; `file` stays closed when that fails. A pipe in
// the file's place fails too, and is not waited for.
void map_whole(util::MMappedFile& file, const std::string& path);

// A buffer for an entry of `size` bytes, or, when there is no memory for that,
// one in which the entry has no room.
util::RwBuffer entry_buffer(std::uint64_t size);

// Deletes a file that an append left half-written. Its record tells of the
// deletion, not, as its words have it, of a failure: readers of logs know it so.
void remove_unstored(const std::string& path);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_STORE_FILES_H_
