#pragma once

#include <boost/shared_ptr.hpp>

#include <bexko/services/memory.h>
#include <bexko/services/packagemanager.h>
#include <bexko/services/preferencemanager.h>
#include <bexko/services/preferences.h>
#include <zr/zrbroker.h>

namespace bexko {
namespace services {

/// The host's built-in modules, each created and registered on one broker.
struct BuiltinServices {
  boost::shared_ptr<Memory> memory;
  boost::shared_ptr<Preferences> preferences;
  boost::shared_ptr<PreferenceManager> preferenceManager;
  boost::shared_ptr<PackageManager> packageManager;
};

/// Creates and registers "ZRMemory", "ZRPreferences", "ZRPreferenceManager" and
/// "PackageManager", in that order, with ZR::ZRModule::createModule. Throws the ZRError of a
/// module that cannot be registered (a name already taken).
BuiltinServices createBuiltinServices(boost::shared_ptr<ZR::ZRBroker> broker);

}  // namespace services
}  // namespace bexko
