#include <quorvane/module.h>

#include <cstdlib>
#include <new>
#include <string_view>
#include <utility>

#include "src/fork_guard.h"
#include "src/module_levels.h"

namespace quorvane {
namespace module {
namespace {

using logging::get_singleton_outlet;

constexpr std::int32_t kFaultAbortLevel = 0;
constexpr std::int32_t kFaultLogLevel = 2;

std::size_t bucket_of(std::string_view path, std::size_t buckets) {
  return std::hash<std::string_view>()(path) % buckets;
}

// Deletes a module and its routes.
void destroy(Module* module) {
  delete module->routes;
  delete module;
}

Lookup& registry() {
  static Lookup& lookup = *new Lookup(get_singleton_outlet());
  return lookup;
}

const ModuleLevels& read_levels() {
  const char* const setting = secure_getenv("QV_LOG_LEVELS");
  const auto& levels = *new ModuleLevels(setting == nullptr ? "" : setting);
  if (!levels.malformed().empty()) {
    QV_LOG(Module::get_internal(), WARN,
           "Unexpected parts of environment variable \"QV_LOG_LEVELS\": \"%s\"",
           levels.malformed().c_str());
  }
  return levels;
}

const ModuleLevels& levels() {
  static const ModuleLevels& levels = read_levels();
  return levels;
}

// A level that the program has set itself stays, and so do all levels without a log file.
void set_level(Module& module) {
  if (module.outlet->fd >= 0 && module.level == module.outlet->level) {
    module.level = levels().find(*module.routes).value_or(module.level);
  }
}

// These are made at load, so that no fork happens while another thread makes them.
[[maybe_unused]] const ModuleLevels& g_levels_read_at_load = levels();
[[maybe_unused]] Lookup& g_registry_made_at_load = registry();
[[maybe_unused]] Module* const g_internal_made_at_load = Module::get_internal();

}  // namespace

// At INFO, whatever the outlet's level is.
// Kept: docs/compatibility.md
Module* Module::get_internal() {
  static Module* const internal = new Module{
      QV_LOG_LEVEL_INFO, kFaultAbortLevel, kFaultLogLevel, 0, get_singleton_outlet(), nullptr};
  return internal;
}

Lookup::Lookup(logging::LoggingModuleData* outlet) : outlet_(outlet) { fork_guard::add(mutex_); }

Lookup::~Lookup() {
  fork_guard::remove(mutex_);
  for (const auto& bucket : buckets_) {
    for (const Node* node = bucket.load(std::memory_order_relaxed); node != nullptr;) {
      delete std::exchange(node, node->next);
    }
  }
}

std::unique_ptr<Module> Lookup::create_module() {
  std::unique_ptr<Module> made(
      new Module{outlet_->level, kFaultAbortLevel, kFaultLogLevel, 0, outlet_, nullptr});
  made->routes = new std::vector<std::string>;
  return made;
}

void Lookup::add_route(Module& module, const std::string& path) {
  if (!is_well_formed(path)) {
    QV_LOG(Module::get_internal(), WARN, "Format error parsing module path \"%s\"", path.c_str());
    return;
  }
  module.routes->push_back(path);
}

// Everything that needs memory comes first: a module is registered under all of its
// routes or stays the caller's.
void Lookup::commit(std::unique_ptr<Module>&& module) {
  using Owner = std::unique_ptr<Module, void (*)(Module*)>;
  const fork_guard::Lock lock(mutex_);
  Map entries;
  std::vector<std::unique_ptr<Node>> nodes;
  for (const std::string& route : *module->routes) {
    const auto [entry, is_new] = entries.try_emplace(route);
    if (!is_new || find(route) != nullptr) {
      // At any level of the module.
      // Kept: docs/compatibility.md
      qv_log_do(module.get(), QV_LOG_LEVEL_ERROR, 0, "Module creation collision detected: %s",
                route.c_str());
      fork_guard::give_up();
      std::abort();
    }
    nodes.push_back(std::make_unique<Node>(Node{&*entry, nullptr}));
  }
  map_.reserve(map_.size() + entries.size());
  const auto owner = std::make_shared<Owner>(nullptr, &destroy);

  set_level(*module);
  owner->reset(module.release());
  for (auto& entry : entries) {
    entry.second = std::shared_ptr<Module>(owner, owner->get());
  }
  map_.merge(entries);
  // Readers see a complete node or none.
  for (std::unique_ptr<Node>& node : nodes) {
    auto& bucket = buckets_[bucket_of(node->entry->first, buckets_.size())];
    node->next = bucket.load(std::memory_order_relaxed);
    bucket.store(node.release(), std::memory_order_release);
  }
}

Module* Lookup::find(const std::string& path) const { return find_route(path); }

Module* Lookup::find_route(std::string_view path) const {
  const auto& bucket = buckets_[bucket_of(path, buckets_.size())];
  for (const Node* node = bucket.load(std::memory_order_acquire); node != nullptr;
       node = node->next) {
    if (node->entry->first == path) {
      return node->entry->second.get();
    }
  }
  return nullptr;
}

namespace {

// Modules whose path was malformed: nobody can find them, but their handles still point
// to them.
class Unregistered {
 public:
  Unregistered() { fork_guard::add(mutex_); }

  void keep(Module* module) try {
    const fork_guard::Lock lock(mutex_);
    modules_.push_back(module);
  } catch (const std::bad_alloc&) {
    // The list only shows leak checkers that the module isn't lost.
  }

  static Unregistered& instance() {
    static Unregistered& all = *new Unregistered;
    return all;
  }

 private:
  std::mutex mutex_;
  std::vector<Module*> modules_;
};

[[maybe_unused]] Unregistered& g_unregistered_made_at_load = Unregistered::instance();

// The module of `path`, made and registered if there is none.
Module* find_or_register(const char* path) {
  if (void* found = qv_module_find(path)) {
    return static_cast<Module*>(found);
  }
  auto* made = static_cast<Module*>(qv_module_create());
  if (made == nullptr) {
    return Module::get_internal();
  }
  qv_module_route(path, made);
  // A malformed path still makes a module.
  // Kept: docs/compatibility.md
  if (made->routes->empty()) {
    Unregistered::instance().keep(made);
  } else {
    qv_module_commit(made);
  }
  return made;
}

}  // namespace
}  // namespace module

Module::Module(const char* path) : module_(module::find_or_register(path)) {}

}  // namespace quorvane

using quorvane::module::registry;

void* qv_module_create(void) try {
  return registry().create_module().release();
} catch (const std::bad_alloc&) {
  return nullptr;
}

void qv_module_route(const char* path, void* module) try {
  if (path != nullptr && module != nullptr) {
    registry().add_route(*static_cast<quorvane::module::Module*>(module), path);
  }
} catch (const std::bad_alloc&) {
  QV_LOG(quorvane::module::Module::get_internal(), WARN, "No memory for module path \"%s\"", path);
}

void qv_module_commit(void* module) {
  if (module == nullptr) {
    return;
  }
  std::unique_ptr<quorvane::module::Module> owned(static_cast<quorvane::module::Module*>(module));
  try {
    registry().commit(std::move(owned));
  } catch (const std::bad_alloc&) {
    QV_LOG(quorvane::module::Module::get_internal(), WARN, "No memory to register a module");
    static_cast<void>(owned.release());  // its maker may still use it
  }
}

void* qv_module_find(const char* path) {
  return path == nullptr ? nullptr : registry().find_route(path);
}

// The third argument is ignored.
// Kept: docs/compatibility.md
void qv_logv_do(void* module, qv_log_level_t level, unsigned long /*reserved*/, const char* format,
                va_list args) {
  quorvane::logging::logv_do(*static_cast<quorvane::module::Module*>(module)->outlet, level, format,
                             args);
}

void qv_log_do(void* module, qv_log_level_t level, unsigned long reserved, const char* format,
               ...) {
  va_list args;
  va_start(args, format);
  qv_logv_do(module, level, reserved, format, args);
  va_end(args);
}
