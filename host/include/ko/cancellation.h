#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>

#include <zr/export.h>

namespace ko {

/// Tells the calls made for one caller that nobody waits for their answers any more (a
/// gateway connection that closed). A call that has not started by then is not run; a call
/// that waits where the host can cut the wait short (a FairMutex) stops waiting and throws
/// CallCancelled. A call that is already past such waits runs to its end as usual.
class BEXKO_API CallCancellation {
 public:
  CallCancellation() = default;
  CallCancellation(const CallCancellation&) = delete;
  CallCancellation& operator=(const CallCancellation&) = delete;

  /// Cancels; wakes every registered waiter. Idempotent.
  void cancel();
  bool cancelled() const;

  /// While the returned registration lives, `wake` is called once when the caller goes (at
  /// once if it has gone already). `wake` runs on the cancelling thread, with this object's
  /// lock held: it must not register or unregister. Ending the registration waits for a `wake`
  /// that is running.
  class BEXKO_API Registration {
   public:
    Registration() = default;
    Registration(CallCancellation* owner, std::function<void()> wake);
    ~Registration();
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

   private:
    CallCancellation* owner = nullptr;
    std::uint64_t key = 0;
  };

 private:
  mutable std::mutex mutex;
  bool gone = false;
  std::uint64_t nextKey = 1;
  std::map<std::uint64_t, std::function<void()>> wakers;
};

using CallCancellationPtr = std::shared_ptr<CallCancellation>;

/// Thrown out of a wait of a call whose caller has gone.
class BEXKO_API CallCancelled : public std::runtime_error {
 public:
  CallCancelled();
};

/// The cancellation of the call being served on this thread, or null when it has none.
BEXKO_API CallCancellation* currentCallCancellation();

}  // namespace ko
