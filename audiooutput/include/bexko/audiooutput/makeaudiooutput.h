#pragma once

#include <memory>
#include <string>
#include <vector>

#include <ko/audiooutput.h>

namespace bexko::audiooutput {

/// The names that makeAudioOutput accepts, in the order a user would read them.
std::vector<std::string> audioOutputNames();

/// Creates the output that `name` chooses, in the host's default format: "none" gives null (no
/// audio), "clock" a ClockOutput, "pulse" a PulseOutput on libpulse's default server and
/// sink, "auto" the PulseOutput when a sound server answers and otherwise the ClockOutput,
/// logging why. Throws ZR::ZRError (module "AudioOutput", method "open") for an unknown name
/// and when "pulse" cannot be opened.
std::shared_ptr<ko::AudioOutput> makeAudioOutput(const std::string& name);

}  // namespace bexko::audiooutput
