#include <ko/signal.h>

#include <atomic>

namespace ko {
namespace detail {

SignalLink nextSignalLink() {
  // Links are unique across every signal of the process, so that an object can keep one map
  // from link to signal; 0 stays the invalid link.
  static std::atomic<SignalLink> counter{1};
  return counter.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace detail
}  // namespace ko
