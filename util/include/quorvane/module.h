/// \file
/// Log modules and the registry that finds them by path.
///
/// A module carries a component's level and its fault thresholds. Components
/// declare one as a static quorvane::Module; a second declaration of the same
/// path gives the same module.
///
/// Thread-safety: creating, finding and committing are safe from any thread; two
/// threads that commit the same path at the same time end the process. Routing
/// touches only the caller's own module.
/// Fork-safety: a child may use everything here, whatever its parent's other
/// threads did at the fork.
#ifndef QUORVANE_MODULE_H_
#define QUORVANE_MODULE_H_

#include <quorvane/export.h>
#include <quorvane/log.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A new module at the outlet's level, without routes and not yet registered.
 * The caller owns it until qv_module_commit. Null without memory. */
QV_EXPORT void* qv_module_create(void);

/** Adds a route, components separated by "/". A leading "/" or an empty
 * component is malformed: the route is not added, and the library's internal
 * module logs a WARN record, as it does without memory. A trailing "/" and the
 * empty path are fine. A null path or module is ignored. */
QV_EXPORT void qv_module_route(const char* path, void* module);

/** Registers the module under each of its routes and takes it over. A route that
 * is already registered logs an ERROR record and aborts. A module without
 * routes is destroyed. Without memory the library's internal module logs a WARN
 * record, and the module stays as it is, for ever. A null module is ignored. */
QV_EXPORT void qv_module_commit(void* module);

/** The module registered under exactly this route, or null. Takes no lock and
 * allocates nothing. The registry keeps it until the process ends. */
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

/// The module record. Written by its owner before it is committed; afterwards
/// only its level and thresholds may be written, by whoever coordinates readers.
struct QV_EXPORT Module {
  qv_log_level_t level;                ///< records above it are not emitted
  std::int32_t fault_abort_level;      ///< a failed check of at most this severity aborts; 0
  std::int32_t fault_log_level;        ///< a failed check of at most this severity is logged; 2
  std::uint64_t reserved;              ///< 0
  logging::LoggingModuleData* outlet;  ///< where its records go
  std::vector<std::string>* routes;    ///< null for the internal module

  /// The library's own module: level INFO, never registered, lives for ever.
  static Module* get_internal();
};

/// The registry: routes to modules. Find is lock-free; commits serialise.
class QV_EXPORT Lookup {
 public:
  /// `outlet` must outlive the registry and every module that it creates.
  explicit Lookup(logging::LoggingModuleData* outlet);
  ~Lookup();
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;

  /// See qv_module_create.
  std::unique_ptr<Module> create_module();

  /// See qv_module_route.
  void add_route(Module& module, const std::string& path);

  /// See qv_module_commit. Without memory it throws std::bad_alloc, and the module
  /// stays the caller's.
  void commit(std::unique_ptr<Module>&& module);

  /// See qv_module_find.
  Module* find(const std::string& path) const;

  // End of the public interface.

 private:
  using Map = std::unordered_map<std::string, std::shared_ptr<Module>>;

  // One registered route as readers see it; immutable once they do.
  struct Node {
    const Map::value_type* entry;
    const Node* next;
  };

  friend void* ::qv_module_find(const char* path);  // finds without a copy of the path
  Module* find_route(std::string_view path) const;

  Map map_;
  std::mutex mutex_;
  logging::LoggingModuleData* outlet_;
  std::array<std::atomic<const Node*>, 256> buckets_{};
};

}  // namespace module

/// A component's handle on its module; declare it as a static object.
class QV_EXPORT Module {
 public:
  /// Finds the module of this path, or creates, routes and commits it. A
  /// malformed path gives a module of its own that nobody can find. Without memory
  /// it is the library's internal module.
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
