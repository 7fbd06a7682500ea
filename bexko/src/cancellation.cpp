#include <ko/cancellation.h>

namespace ko {

void CallCancellation::cancel() {
  std::lock_guard<std::mutex> lock(mutex);
  if (gone) return;
  gone = true;
  for (auto& entry : wakers) entry.second();
}

bool CallCancellation::cancelled() const {
  std::lock_guard<std::mutex> lock(mutex);
  return gone;
}

CallCancellation::Registration::Registration(CallCancellation* cancellation,
                                             std::function<void()> wake)
    : owner(cancellation) {
  if (!owner) return;
  std::lock_guard<std::mutex> lock(owner->mutex);
  if (owner->gone) {
    wake();
    owner = nullptr;
    return;
  }
  key = owner->nextKey++;
  owner->wakers.emplace(key, std::move(wake));
}

CallCancellation::Registration::~Registration() {
  if (!owner) return;
  std::lock_guard<std::mutex> lock(owner->mutex);
  owner->wakers.erase(key);
}

CallCancelled::CallCancelled()
    : std::runtime_error("The call was abandoned: its caller went away before it could start") {}

}  // namespace ko
