#pragma once

#include <chrono>

namespace ko {

/// The framework's monotonic clock.
struct Clock {
  using duration = std::chrono::steady_clock::duration;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::steady_clock::time_point;
  static constexpr bool is_steady = true;
  static time_point now() { return std::chrono::steady_clock::now(); }
};

}  // namespace ko
