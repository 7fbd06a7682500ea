#include <zr/zrproxy.h>

#include <zr/zrmodulecore.h>

namespace ZR {

ZRProxy::ZRProxy(boost::shared_ptr<ZRBroker> broker, const std::string& moduleName)
    : broker_(broker), moduleName_(moduleName) {
  if (!broker) throw ZRError(moduleName, "ZRProxy", "no broker given");
  if (!broker->getModuleByName(moduleName)) {
    throw ZRError(moduleName, "ZRProxy",
                  "Cannot create a proxy: no module named \"" + moduleName + "\" is registered");
  }
}

ZRProxy::~ZRProxy() = default;

boost::shared_ptr<ZRBroker> ZRProxy::broker() const {
  boost::shared_ptr<ZRBroker> broker = broker_.lock();
  if (!broker) throw ZRError(moduleName_, "ZRProxy", "the broker is gone");
  return broker;
}

ZRValue ZRProxy::genericCall(const std::string& method, const std::vector<ZRValue>& args) {
  return broker()->call(moduleName_, method, args);
}

ZRPostedCall ZRProxy::genericPost(const std::string& method, std::vector<ZRValue> args) {
  return broker()->post(moduleName_, method, std::move(args));
}

void ZRProxy::stop(int id) { broker()->stop(moduleName_, id); }

bool ZRProxy::wait(int id, int msecs) { return broker()->wait(id, msecs); }

bool ZRProxy::isRunning(int id) { return broker()->isRunning(id); }

}  // namespace ZR
