#include <zr/zrmutex.h>

namespace ZR {

boost::shared_ptr<ZRMutex> ZRMutex::createZRMutex() {
  // The constructor is private, so boost::make_shared cannot reach it.
  return boost::shared_ptr<ZRMutex>(new ZRMutex());
}

}  // namespace ZR
