#pragma once

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

}  // namespace detail
}  // namespace bexko
