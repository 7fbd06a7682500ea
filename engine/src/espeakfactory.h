#pragma once

#include <memory>

#include <bexko/engine/backend.h>

namespace bexko {
namespace engine {
namespace detail {

/// The engine name under which the eSpeak NG backend is registered.
constexpr const char* kEspeakEngineName = "tts_espeak";

/// A new eSpeak NG backend with the pacing chosen by the environment.
std::unique_ptr<Backend> makeEspeakBackend();

}  // namespace detail
}  // namespace engine
}  // namespace bexko
