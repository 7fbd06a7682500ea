#include "callcontext.h"

#include <vector>

namespace bexko {
namespace detail {

namespace {

thread_local std::vector<CallFrame> callStack;
thread_local int pendingPostedId = 0;
thread_local int continuedPostedId = 0;

}  // namespace

CallFrameGuard::CallFrameGuard(const ZR::ZRModuleCore* module, bool posted, int id) {
  callStack.push_back(CallFrame{module, posted, id});
}

CallFrameGuard::~CallFrameGuard() { callStack.pop_back(); }

const CallFrame* innermostFrameOf(const ZR::ZRModuleCore* module) {
  for (auto it = callStack.rbegin(); it != callStack.rend(); ++it) {
    if (it->module == module) return &*it;
  }
  return nullptr;
}

PostedCallMark::PostedCallMark(int id) { pendingPostedId = id; }

PostedCallMark::~PostedCallMark() { pendingPostedId = 0; }

int takePostedCallMark() {
  int id = pendingPostedId;
  pendingPostedId = 0;
  return id;
}

void continuePostedIdsAfter(int last) { continuedPostedId = last; }

int takeContinuedPostedId() {
  const int last = continuedPostedId;
  continuedPostedId = 0;
  return last;
}

}  // namespace detail
}  // namespace bexko
