#pragma once

#include <cstdint>

#include <string>

#include <zr/export.h>
#include <zr/zrerror.h>

namespace ko {
class CallCancellation;
}

namespace ZR {
class ZRModuleCore;
}

namespace bexko {
namespace detail {

/// One published call being served on this thread.
struct CallFrame {
  const ZR::ZRModuleCore* module;
  bool posted;
  int id;
};

/// Pushes a frame on this thread's call stack for its lifetime. Every method call made through
/// the host is wrapped in one, so that a module can ask, from inside the method, how it was
/// called.
class CallFrameGuard {
 public:
  CallFrameGuard(const ZR::ZRModuleCore* module, bool posted, int id);
  ~CallFrameGuard();
  CallFrameGuard(const CallFrameGuard&) = delete;
  CallFrameGuard& operator=(const CallFrameGuard&) = delete;
};

/// The innermost frame of `module` on this thread, or null when the thread is not serving a
/// call of that module.
const CallFrame* innermostFrameOf(const ZR::ZRModuleCore* module);

/// Marks the next method call made on this thread as the posted call `id`. The broker sets it
/// just before handing a posted call to the module; the module's call entry takes it, so that a
/// call the method makes in turn is an ordinary one again.
class PostedCallMark {
 public:
  explicit PostedCallMark(int id);
  ~PostedCallMark();  // clears a mark that no call took
  PostedCallMark(const PostedCallMark&) = delete;
  PostedCallMark& operator=(const PostedCallMark&) = delete;
};

/// Takes the posted-call mark of this thread: the id, or 0 when the call was not posted.
int takePostedCallMark();

/// Numbers a call as it reaches the host (see ko::arrivalTicket).
std::uint64_t stampArrival();

/// Makes `arrival` the number of the call served on this thread for its lifetime.
class ArrivalScope {
 public:
  explicit ArrivalScope(std::uint64_t arrival);
  ~ArrivalScope();
  ArrivalScope(const ArrivalScope&) = delete;
  ArrivalScope& operator=(const ArrivalScope&) = delete;

 private:
  std::uint64_t previous;
};

/// Makes `cancellation` (may be null) the cancellation of the call served on this thread for
/// its lifetime (see ko::currentCallCancellation).
class CancellationScope {
 public:
  explicit CancellationScope(ko::CallCancellation* cancellation);
  ~CancellationScope();
  CancellationScope(const CancellationScope&) = delete;
  CancellationScope& operator=(const CancellationScope&) = delete;

 private:
  ko::CallCancellation* previous;
};

/// The refusal of a call before its method ran: no overload takes that many arguments, or an
/// argument does not convert to its parameter's type. Thrown by ZRModuleCore::callMethod for
/// its own call only (one that escapes from inside the method, from a call the method made in
/// turn, leaves as a plain ZRError), so that the broker can tell the caller's mistake from the
/// method's failure.
class RefusedArguments : public ZR::ZRError {
 public:
  RefusedArguments(const std::string& module, const std::string& method,
                   const std::string& description)
      : ZR::ZRError(module, method, description) {}
};

/// Posted-call ids run from firstPostedId to lastPostedId and then wrap back to firstPostedId.
/// Modules number their own tasks from 1 and hand both kinds of id to the same stop(id), so the
/// host starts a billion higher: the two ranges never meet in practice.
constexpr int firstPostedId = 1000000000;
constexpr int lastPostedId = 2147483646;

/// The posted-call id that follows `last`; firstPostedId after lastPostedId, and for any `last`
/// outside the range (0: nothing handed out yet).
constexpr int postedIdAfter(int last) {
  return last < firstPostedId || last >= lastPostedId ? firstPostedId : last + 1;
}

/// Test hook, not part of the host's API: the next ZR::ZRBroker::post made on this thread
/// continues its broker's id sequence after `last`, as if `last` had just been handed out. It
/// lets a test reach the wrap without posting a billion calls.
BEXKO_API void continuePostedIdsAfter(int last);

/// Takes this thread's continuePostedIdsAfter value: the id to continue after, or 0 when none
/// was set.
int takeContinuedPostedId();

}  // namespace detail
}  // namespace bexko
