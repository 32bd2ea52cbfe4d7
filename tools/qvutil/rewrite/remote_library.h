// The library for caches on servers.
#ifndef TOOLS_QVUTIL_REWRITE_REMOTE_LIBRARY_H_
#define TOOLS_QVUTIL_REWRITE_REMOTE_LIBRARY_H_

#include <quorvane/store.h>

#include <memory>
#include <string>

namespace quorvane::tool {

// The store of the cache `name` on the servers of the environment; null without memory for it.
// Opens the library at the first call: it and all that it needs would be 2 of the 5 ms that any
// command takes to start. Throws Failure if it isn't installed.
std::unique_ptr<cache::Store> make_remote_store(const std::string& name);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_REMOTE_LIBRARY_H_
