#include <bexko/services/builtinservices.h>

namespace bexko {
namespace services {

BuiltinServices createBuiltinServices(boost::shared_ptr<ZR::ZRBroker> broker) {
  BuiltinServices services;
  services.memory = ZR::ZRModule::createModule<Memory>(broker);
  services.preferences = ZR::ZRModule::createModule<Preferences>(broker);
  services.preferenceManager = ZR::ZRModule::createModule<PreferenceManager>(broker);
  services.packageManager = ZR::ZRModule::createModule<PackageManager>(broker);
  return services;
}

}  // namespace services
}  // namespace bexko
