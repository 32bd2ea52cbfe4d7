/// \file
/// UUIDs, and one identity for each process.
///
/// Thread-safety: any thread; concurrent first callers of get_my_uuid agree on
/// one identity. Fork-safety: a child has an identity of its own, however it was
/// forked (raw clone included) and whatever its parent's threads were doing.
#ifndef QUORVANE_UUID_H_
#define QUORVANE_UUID_H_

#include <string>

#include <boost/uuid/uuid.hpp>

#include <quorvane/export.h>

namespace quorvane {

/// A new random UUID, version 4. Asks the kernel once and keeps nothing between
/// calls. What Boost's generator throws when the kernel refuses
/// (boost::uuids::entropy_error) goes through to the caller.
QV_EXPORT boost::uuids::uuid uuid_generate();

/// The UUID that `text` is: 32 hexadecimal digits in either case, with all four
/// hyphens of the 8-4-4-4-12 grouping or none, in braces or not. Anything else,
/// also null, gives the nil UUID, which can't be told from the written one.
/// Never throws.
QV_EXPORT boost::uuids::uuid uuid_parse(const char* text);

/// The 36 characters of the 8-4-4-4-12 grouping, in lower case.
QV_EXPORT std::string uuid_unparse(boost::uuids::uuid u);

/// Makes it the nil UUID, sixteen zero bytes.
QV_EXPORT void uuid_clear(boost::uuids::uuid& u);

/// This process's identity, made by the first call and then the same for the
/// life of the process; it doesn't outlive execve. Costs a load and a copy. May
/// throw what uuid_generate throws as long as no call has succeeded.
QV_EXPORT boost::uuids::uuid get_my_uuid();

}  // namespace quorvane

#endif  // QUORVANE_UUID_H_
