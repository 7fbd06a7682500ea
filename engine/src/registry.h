#pragma once

#include <cstdint>
#include <string>

namespace bexko {
namespace engine {
namespace detail {

/// A number that changes whenever the registration of `engineName` changes; 0 when the name is
/// not registered. A manager reuses a backend instance only while it stays the same.
std::uint64_t registrationOf(const std::string& engineName);

}  // namespace detail
}  // namespace engine
}  // namespace bexko
