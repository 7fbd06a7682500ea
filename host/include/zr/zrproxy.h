#pragma once

#include <string>
#include <type_traits>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <zr/export.h>
#include <zr/zrbroker.h>
#include <zr/zrvalue.h>

namespace ZR {

/// A handle on a module, for calling its methods by name with typed arguments converted
/// through ZRValue. Holds the broker weakly: a call after the broker is gone throws ZRError.
class BEXKO_API ZRProxy {
 public:
  /// Throws ZRError when no module of that name is registered with the broker.
  ZRProxy(boost::shared_ptr<ZRBroker> broker, const std::string& moduleName);
  virtual ~ZRProxy();

  const std::string& moduleName() const { return moduleName_; }

  /// Calls `method` and waits for its result, converted to R (R may be void). Throws ZRError
  /// for call failures and for a result that does not convert.
  template <typename R, typename... A>
  R call(const std::string& method, const A&... args) {
    ZRValue result = genericCall(method, std::vector<ZRValue>{toZRValue(args)...});
    if constexpr (std::is_void<R>::value) {
      (void)result;
    } else {
      return fromZRValue<R>(result);
    }
  }

  /// Posts `method` (runs it on a host thread without waiting); returns the call id.
  template <typename... A>
  int post(const std::string& method, const A&... args) {
    return genericPost(method, std::vector<ZRValue>{toZRValue(args)...}).id;
  }
  /// Same as post, the name the framework also knows.
  template <typename... A>
  int pCall(const std::string& method, const A&... args) {
    return post(method, args...);
  }

  ZRValue genericCall(const std::string& method, const std::vector<ZRValue>& args);
  ZRPostedCall genericPost(const std::string& method, std::vector<ZRValue> args);
  /// Stops a posted call of this module.
  void stop(int id);
  /// Waits up to `msecs` for a posted call; false when it is still running.
  bool wait(int id, int msecs);
  bool isRunning(int id);

 protected:
  boost::shared_ptr<ZRBroker> broker() const;

 private:
  boost::weak_ptr<ZRBroker> broker_;
  std::string moduleName_;
};

}  // namespace ZR
