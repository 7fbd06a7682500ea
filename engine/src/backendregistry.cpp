#include <bexko/engine/backend.h>

#include <map>
#include <mutex>

#include <ko/log.h>

#include "espeakfactory.h"
#include "registry.h"

namespace bexko {
namespace engine {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("engine.registry");
  return category;
}

struct Registration {
  BackendFactory factory;
  std::uint64_t id;
};

struct Registry {
  std::mutex mutex;
  std::map<std::string, Registration> registrations;
  std::uint64_t lastId = 0;
};

// Built on first use, so that the eSpeak NG backend is registered whatever the order in which
// static objects of the process are constructed.
Registry& registry() {
  static Registry* instance = [] {
    auto* r = new Registry;
    r->registrations[detail::kEspeakEngineName] =
        Registration{detail::makeEspeakBackend, ++r->lastId};
    return r;
  }();
  return *instance;
}

}  // namespace

void registerBackend(const std::string& engineName, BackendFactory factory) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  const bool replaced = r.registrations.count(engineName) != 0;
  r.registrations[engineName] = Registration{std::move(factory), ++r.lastId};
  KO_LOG(logCategory(), ko::log::verbose, "registerBackend")
      << (replaced ? "Replaced backend " : "Registered backend ") << engineName;
}

bool unregisterBackend(const std::string& engineName) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  const bool erased = r.registrations.erase(engineName) != 0;
  if (erased) {
    KO_LOG(logCategory(), ko::log::verbose, "unregisterBackend")
        << "Unregistered backend " << engineName;
  }
  return erased;
}

bool isBackendRegistered(const std::string& engineName) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.registrations.count(engineName) != 0;
}

std::unique_ptr<Backend> createBackend(const std::string& engineName) {
  BackendFactory factory;
  {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.registrations.find(engineName);
    if (it == r.registrations.end()) return nullptr;
    factory = it->second.factory;
  }
  // The factory runs outside the lock: it may be slow (an engine reading its voices).
  return factory ? factory() : nullptr;
}

namespace detail {
std::uint64_t registrationOf(const std::string& engineName) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.registrations.find(engineName);
  return it == r.registrations.end() ? 0 : it->second.id;
}
}  // namespace detail

}  // namespace engine
}  // namespace bexko
