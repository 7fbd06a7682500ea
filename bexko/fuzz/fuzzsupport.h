#pragma once

#include <string>

namespace bexko {
namespace fuzz {

/// Points HOME and the XDG folders at a fresh temporary tree (removed at exit), as the unit
/// tests' main does, so that no fuzz input reads or writes the user's files; and silences the
/// logs (a fuzzer runs millions of inputs; BEXKO_LOG_LEVEL still applies). Call it first in
/// LLVMFuzzerInitialize, before anything looks up a path. Returns the tree's root.
std::string prepareFuzzing();

}  // namespace fuzz
}  // namespace bexko
