#pragma once

#include <mutex>

#include <boost/shared_ptr.hpp>

#include <zr/export.h>

namespace ZR {

/// The host's mutex, always held through a shared pointer.
class BEXKO_API ZRMutex {
 public:
  static boost::shared_ptr<ZRMutex> createZRMutex();
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }
  bool tryLock() { return mutex_.try_lock(); }

 private:
  ZRMutex() = default;
  std::mutex mutex_;
};

/// Holds a ZRMutex for its lifetime.
class ZRCriticalSection {
 public:
  explicit ZRCriticalSection(const boost::shared_ptr<ZRMutex>& mutex) : mutex_(mutex) {
    mutex_->lock();
  }
  ~ZRCriticalSection() { mutex_->unlock(); }
  ZRCriticalSection(const ZRCriticalSection&) = delete;
  ZRCriticalSection& operator=(const ZRCriticalSection&) = delete;

 private:
  boost::shared_ptr<ZRMutex> mutex_;
};

}  // namespace ZR
