#pragma once

#include <vector>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <zr/export.h>

namespace ZR {

class ZRBroker;

/// Keeps the brokers of the process. One instance is the process-wide one.
class BEXKO_API ZRBrokerManager : public boost::enable_shared_from_this<ZRBrokerManager> {
 public:
  ZRBrokerManager();
  ~ZRBrokerManager();

  /// Installs the process-wide instance (null clears it). The last call wins.
  static void setInstance(boost::shared_ptr<ZRBrokerManager> manager);
  /// The process-wide instance, or null.
  static boost::shared_ptr<ZRBrokerManager> getInstance();

  /// Registers a broker; registering it again changes nothing.
  void addBroker(boost::shared_ptr<ZRBroker> broker);
  void removeBroker(const boost::shared_ptr<ZRBroker>& broker);
  std::vector<boost::shared_ptr<ZRBroker>> getBrokers() const;

 private:
  struct Impl;
  Impl* impl_;
};

}  // namespace ZR
