// The log module of the remote store.
#ifndef QUORVANE_REMOTE_SRC_RECORDS_H_
#define QUORVANE_REMOTE_SRC_RECORDS_H_

#include <quorvane/module.h>

namespace quorvane {
namespace remote {

// No record holds a key, a value or a password.
extern const Module g_module;

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_RECORDS_H_
