/// \file
/// UUIDs, and one identity for each process.
///
/// Thread-safety: any thread; concurrent first callers of get_my_uuid get the same
/// identity. Fork-safety: a child has an identity of its own, however it was forked (raw
/// clone included) and whatever other threads of its parent were doing. Nothing is logged.
#ifndef QUORVANE_UUID_H_
#define QUORVANE_UUID_H_

#include <string>

#include <boost/uuid/uuid.hpp>

#include <quorvane/export.h>

namespace quorvane {

/// A new random UUID, version 4, from one request to the kernel; keeps no state. Throws
/// boost::uuids::entropy_error when the kernel refuses.
QV_EXPORT boost::uuids::uuid uuid_generate();

/// The UUID that `text` spells: 32 hexadecimal digits in either case, with all four
/// hyphens of the 8-4-4-4-12 grouping or none, in braces or not. Any other text, and null,
/// gives the nil UUID, just as the text of the nil UUID does. Never throws.
QV_EXPORT boost::uuids::uuid uuid_parse(const char* text);

/// The UUID as 36 characters in the 8-4-4-4-12 grouping, in lower case.
QV_EXPORT std::string uuid_unparse(boost::uuids::uuid u);

/// Sets `u` to the nil UUID, sixteen zero bytes.
QV_EXPORT void uuid_clear(boost::uuids::uuid& u);

/// This process's identity. The first call makes it; it stays the same until the process
/// ends or calls execve. Later calls cost a load and a copy. Throws what uuid_generate
/// throws until a call has succeeded.
QV_EXPORT boost::uuids::uuid get_my_uuid();

}  // namespace quorvane

#endif  // QUORVANE_UUID_H_
