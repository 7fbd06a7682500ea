#pragma once

// A host for the fuzz targets that call modules: a broker, made the process-wide one, with the
// built-in services. Header-only, so that only the targets that include it link the services.

#include <boost/shared_ptr.hpp>

#include <bexko/services/builtinservices.h>
#include <zr/zrbroker.h>
#include <zr/zrbrokermanager.h>

namespace bexko {
namespace fuzz {

struct FuzzHost {
  boost::shared_ptr<ZR::ZRBroker> broker;
  services::BuiltinServices services;
};

/// Starts the host; call it after prepareFuzzing(). It lives until the process ends.
inline FuzzHost startFuzzHost() {
  boost::shared_ptr<ZR::ZRBrokerManager> manager(new ZR::ZRBrokerManager());
  ZR::ZRBrokerManager::setInstance(manager);
  FuzzHost host;
  host.broker = ZR::ZRBroker::create("bexko", manager);
  manager->addBroker(host.broker);
  host.services = services::createBuiltinServices(host.broker);
  return host;
}

}  // namespace fuzz
}  // namespace bexko
