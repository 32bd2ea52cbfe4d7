#include <quorvane/module.h>

#include <cstdlib>
#include <string_view>
#include <utility>

#include "src/fork_guard.h"

namespace quorvane {
namespace module {
namespace {

using logging::get_singleton_outlet;

constexpr std::int32_t kFaultAbortLevel = 0;
constexpr std::int32_t kFaultLogLevel = 2;

std::size_t bucket_of(std::string_view path, std::size_t buckets) {
  return std::hash<std::string_view>()(path) % buckets;
}

// A module that no registry knows goes away with its routes.
void destroy(Module* module) {
  delete module->routes;
  delete module;
}

bool is_well_formed(std::string_view path) {
  return path.find("//") == std::string_view::npos && (path.empty() || path.front() != '/');
}

Lookup& registry() {
  static Lookup& lookup = *new Lookup(get_singleton_outlet());
  return lookup;
}

// Both are made at load, so that no fork catches another thread making them.
[[maybe_unused]] Lookup& g_registry_made_at_load = registry();
[[maybe_unused]] Module* const g_internal_made_at_load = Module::get_internal();

}  // namespace

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
  return std::unique_ptr<Module>(new Module{outlet_->level, kFaultAbortLevel, kFaultLogLevel, 0,
                                            outlet_, new std::vector<std::string>});
}

void Lookup::add_route(Module& module, const std::string& path) {
  if (!is_well_formed(path)) {
    QV_LOG(Module::get_internal(), WARN, "Format error parsing module path \"%s\"", path.c_str());
    return;
  }
  module.routes->push_back(path);
}

void Lookup::commit(std::unique_ptr<Module>&& module) {
  const std::shared_ptr<Module> shared(module.release(), &destroy);
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const std::string& route : *shared->routes) {
    if (find(route) != nullptr) {
      qv_log_do(shared.get(), QV_LOG_LEVEL_ERROR, 0, "Module creation collision detected: %s",
                route.c_str());
      fork_guard::give_up();
      std::abort();
    }
    insert(route, shared);
  }
}

// With the mutex held. Readers see the node whole or not at all.
void Lookup::insert(const std::string& path, const std::shared_ptr<Module>& module) {
  const Map::value_type& entry = *map_.emplace(path, module).first;
  auto& bucket = buckets_[bucket_of(path, buckets_.size())];
  bucket.store(new Node{&entry, bucket.load(std::memory_order_relaxed)}, std::memory_order_release);
}

Module* Lookup::find(const std::string& path) const {
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

// Modules whose path was malformed: nobody can find them, but their handles go
// on pointing at them.
class Unregistered {
 public:
  Unregistered() { fork_guard::add(mutex_); }

  void keep(Module* module) {
    const std::lock_guard<std::mutex> lock(mutex_);
    modules_.push_back(module);
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

// The module of `path`, made and registered when there is none.
Module* find_or_register(const char* path) {
  if (void* found = qv_module_find(path)) {
    return static_cast<Module*>(found);
  }
  auto* made = static_cast<Module*>(qv_module_create());
  qv_module_route(path, made);
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

void* qv_module_create(void) { return registry().create_module().release(); }

void qv_module_route(const char* path, void* module) {
  if (path != nullptr) {
    registry().add_route(*static_cast<quorvane::module::Module*>(module), path);
  }
}

void qv_module_commit(void* module) {
  registry().commit(
      std::unique_ptr<quorvane::module::Module>(static_cast<quorvane::module::Module*>(module)));
}

void* qv_module_find(const char* path) { return path == nullptr ? nullptr : registry().find(path); }

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
