#include <bexko/engine/backend.h>

#include <map>
#include <mutex>

#include <ko/log.h>

#include "espeakfactory.h"

namespace bexko {
namespace engine {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("engine.registry");
  return category;
}

struct Registry {
  std::mutex mutex;
  std::map<std::string, BackendFactory> factories;
};

// Built on first use, so that the eSpeak NG backend is registered whatever the order in which
// static objects of the process are constructed.
Registry& registry() {
  static Registry* instance = [] {
    auto* r = new Registry;
    r->factories[detail::kEspeakEngineName] = detail::makeEspeakBackend;
    return r;
  }();
  return *instance;
}

}  // namespace

void registerBackend(const std::string& engineName, BackendFactory factory) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  const bool replaced = r.factories.count(engineName) != 0;
  r.factories[engineName] = std::move(factory);
  KO_LOG(logCategory(), ko::log::verbose, "registerBackend")
      << (replaced ? "Replaced backend " : "Registered backend ") << engineName;
}

bool unregisterBackend(const std::string& engineName) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  const bool erased = r.factories.erase(engineName) != 0;
  if (erased) {
    KO_LOG(logCategory(), ko::log::verbose, "unregisterBackend")
        << "Unregistered backend " << engineName;
  }
  return erased;
}

bool isBackendRegistered(const std::string& engineName) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.factories.count(engineName) != 0;
}

std::unique_ptr<Backend> createBackend(const std::string& engineName) {
  BackendFactory factory;
  {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.factories.find(engineName);
    if (it == r.factories.end()) return nullptr;
    factory = it->second;
  }
  // The factory runs outside the lock: it may be slow (an engine reading its voices).
  return factory ? factory() : nullptr;
}

}  // namespace engine
}  // namespace bexko
