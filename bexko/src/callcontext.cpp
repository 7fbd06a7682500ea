#include "callcontext.h"

#include <atomic>
#include <vector>

#include <ko/cancellation.h>
#include <ko/fairmutex.h>

namespace bexko {
namespace detail {

namespace {

thread_local std::vector<CallFrame> callStack;
thread_local int pendingPostedId = 0;
thread_local int continuedPostedId = 0;
thread_local std::uint64_t currentArrival = 0;
thread_local ko::CallCancellation* currentCancellation = nullptr;
std::atomic<std::uint64_t> nextArrival{1};

}  // namespace

std::uint64_t stampArrival() { return nextArrival.fetch_add(1); }

ArrivalScope::ArrivalScope(std::uint64_t arrival) : previous(currentArrival) {
  currentArrival = arrival;
}

ArrivalScope::~ArrivalScope() { currentArrival = previous; }

CancellationScope::CancellationScope(ko::CallCancellation* cancellation)
    : previous(currentCancellation) {
  currentCancellation = cancellation;
}

CancellationScope::~CancellationScope() { currentCancellation = previous; }

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

namespace ko {

std::uint64_t arrivalTicket() {
  const std::uint64_t current = bexko::detail::currentArrival;
  return current ? current : bexko::detail::stampArrival();
}

CallCancellation* currentCallCancellation() { return bexko::detail::currentCancellation; }

}  // namespace ko
