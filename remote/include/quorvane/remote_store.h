/// \file
/// The store on Redis, one server or a cluster: caches on many machines share their entries.
///
/// The environment says which servers (QV_CACHE_REMOTE and its siblings, see the guide); it
/// is read when a store is made. The servers are optional: when they are away, slow, full or
/// misconfigured, look-ups miss and additions stay unstored, with a record.
#ifndef QUORVANE_REMOTE_STORE_H_
#define QUORVANE_REMOTE_STORE_H_

#include <memory>
#include <string>

#include <quorvane/export.h>
#include <quorvane/store.h>

namespace quorvane {
namespace cache {

/// Makes a store whose entries are on the servers of the environment. `name` tells caches
/// apart that share servers and a namespace. Connects with the first look-up or flush, not
/// here. Never throws; null, after a WARN record, when there is no memory.
///
/// With `local`, which the new store owns, a look-up asks that store first and then the
/// servers, and keeps there what the servers gave: two processes on one machine then ask
/// once. It does so a thousand entries at a time, at each flush, and when it is destroyed. `local`
/// must be a LookupStore, such as an indexed one of make_store; with another kind the result isn't
/// valid, after an ERROR record. If `local` isn't valid, or doesn't open, only the servers count.
/// Additions are stored in both; try_store_diff is false if one of them hasn't taken all.
///
/// The store isn't valid, after an ERROR record, when a setting is wrong; and when
/// QV_CACHE_REMOTE isn't set and there is no valid `local`. With a valid one, the result is then
/// `local` itself. The store is valid when the servers can't be reached.
///
/// Any thread; a child of fork may use its copy and gets connections of its own.
QV_EXPORT std::unique_ptr<Store> make_remote_store(const std::string& name,
                                                   std::unique_ptr<Store> local = nullptr);

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_STORE_H_
