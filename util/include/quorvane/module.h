/// \file
/// Log modules and the registry that finds them by path.
///
/// A module carries a component's log level and fault thresholds. Components declare it
/// as a static quorvane::Module; a second declaration of the same path gives the same
/// module.
///
/// Thread-safety: any thread may create, find and commit; the second of two threads that
/// commit the same path aborts. Routing changes only the caller's own module.
/// Fork-safety: a child may use everything here, whatever other threads of its parent were
/// doing at the fork. Signal handlers: qv_module_find only.
#ifndef QUORVANE_MODULE_H_
#define QUORVANE_MODULE_H_

#include <quorvane/export.h>
#include <quorvane/log.h>

#ifdef __cplusplus
namespace quorvane {
namespace module {
struct Module;
}
}  // namespace quorvane
#endif

/** A module: opaque in C, quorvane::module::Module in C++. The functions below take and
 * return a module as void*. A qv_module_t* converts to that; the way back needs a
 * static_cast in C++ only. Use this type for variables and for new functions, so that the
 * compiler refuses a pointer to anything else. */
#ifdef __cplusplus
typedef quorvane::module::Module qv_module_t;
extern "C" {
#else
typedef struct qv_module qv_module_t;
#endif

/** A new module at the outlet's level, without routes and not yet registered. The caller
 * owns it until qv_module_commit. Null without memory. */
QV_EXPORT void* qv_module_create(void);

/** Adds the route `path`, which it copies: components separated by "/". A path with a
 * leading "/" or an empty component in the middle is malformed. A trailing "/" and the
 * empty path are well-formed. A malformed path isn't added, nor is one for which there is
 * no memory; the library's internal module then logs a WARN record. Null arguments are
 * ignored. Only the owner of a module that isn't committed yet may call this, one
 * thread at a time. */
QV_EXPORT void qv_module_route(const char* path, void* module);

/** Registers the module under each of its routes and takes ownership. If QV_LOG_LEVELS has a
 * level for one of the routes (the longest path in it decides), the module gets it, unless the
 * program has changed the module's level or no log file is open. Malformed parts of that
 * variable give one WARN record of the library's internal module at load.
 *
 * A route that is already registered, or that the module has twice, logs an ERROR record
 * through this module, whatever its level, and aborts. A module without routes is destroyed.
 * Without memory the library's internal module logs a WARN record, and the module stays the
 * caller's, unregistered. A null module is ignored. Any thread. */
QV_EXPORT void qv_module_commit(void* module);

/** The module registered under exactly this route; null if there is none, and for a null
 * path. Takes no lock and allocates nothing. The registry keeps the module until the
 * process ends. Any thread. */
QV_EXPORT void* qv_module_find(const char* path);

#ifdef __cplusplus
}  // extern "C"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quorvane {
namespace module {

/// The record of a module.
///
/// Invariant: `routes` never changes once the module is committed.
/// Thread-safety: before the commit only its owner uses it. Afterwards any thread reads
/// it; whoever changes its level or thresholds must synchronise with the readers.
/// Fork-safety: a child has its own copy.
struct QV_EXPORT Module {
  qv_log_level_t level;                ///< QV_LOG writes no record above it
  std::int32_t fault_abort_level;      ///< failed checks up to this severity abort; initially 0
  std::int32_t fault_log_level;        ///< failed checks up to it are logged; initially 2
  std::uint64_t reserved;              ///< 0
  logging::LoggingModuleData* outlet;  ///< where its records go; never null
  std::vector<std::string>* routes;    ///< null for the internal module

  /// The library's own module: at INFO, whatever the environment says, never registered.
  /// Lives for ever. Any thread.
  static Module* get_internal();
};

/// A registry, which maps routes to modules. The qv_module functions use the process's own.
///
/// Invariant: a module is registered under all of its routes, or under none.
/// Thread-safety: any thread may create, find and commit; a search takes no lock, and
/// commits exclude each other. Fork-safety: a child may use its copy.
class QV_EXPORT Lookup {
 public:
  /// `outlet` must outlive the registry and every module that it creates.
  explicit Lookup(logging::LoggingModuleData* outlet);
  /// Destroys the modules that it has registered.
  ~Lookup();
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;

  /// A new module, as qv_module_create makes it. Whoever destroys it uncommitted must
  /// delete its `routes` as well. Throws std::bad_alloc without memory.
  std::unique_ptr<Module> create_module();

  /// Adds a route as qv_module_route does. Throws std::bad_alloc without memory.
  void add_route(Module& module, const std::string& path);

  /// Registers the module, which must not be null, as qv_module_commit does. Without
  /// memory it throws std::bad_alloc, and the module stays the caller's.
  void commit(std::unique_ptr<Module>&& module);

  /// The module of this route, as qv_module_find returns it.
  Module* find(const std::string& path) const;

  // End of the public interface.

 private:
  using Map = std::unordered_map<std::string, std::shared_ptr<Module>>;

  // One registered route as readers see it; immutable once it is published.
  struct Node {
    const Map::value_type* entry;
    const Node* next;
  };

  friend void* ::qv_module_find(const char* path);  // looks up without copying the path
  Module* find_route(std::string_view path) const;

  Map map_;
  std::mutex mutex_;
  logging::LoggingModuleData* outlet_;
  std::array<std::atomic<const Node*>, 256> buckets_{};
};

}  // namespace module

/// A component's handle to its module; declare it as a static object.
///
/// Invariant: it points to the same module for its whole life. It owns nothing: the module
/// lives until the process ends.
/// Thread-safety: any thread may construct and read handles. Fork-safety: a child may use
/// its copy and make new ones.
class QV_EXPORT Module {
 public:
  /// Finds the module of this path, or creates, routes and commits one. If two threads
  /// create one for the same path at the same time, the process may abort, as in
  /// qv_module_commit. A malformed path gives a WARN record and a module of its own that
  /// nobody can find.
  /// Without memory the handle refers to the library's internal module.
  explicit Module(const char* path);

  ///@{ The module; never null.
  module::Module* get() const { return module_; }
  module::Module* operator->() const { return module_; }
  ///@}

 private:
  module::Module* module_;
};

}  // namespace quorvane

/// \cond
static inline void* qv_log_module_pointer(const quorvane::Module& module) { return module.get(); }
/// \endcond
#endif  // __cplusplus

#endif  // QUORVANE_MODULE_H_
