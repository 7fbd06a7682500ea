#include <bexko/audiooutput/makeaudiooutput.h>

#include <bexko/audiooutput/clockoutput.h>
#include <bexko/audiooutput/pulseoutput.h>
#include <ko/log.h>
#include <zr/zrerror.h>

namespace bexko::audiooutput {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("audio.output");
  return category;
}

}  // namespace

std::vector<std::string> audioOutputNames() { return {"none", "clock", "pulse", "auto"}; }

std::shared_ptr<ko::AudioOutput> makeAudioOutput(const std::string& name) {
  if (name == "none") return nullptr;
  if (name == "clock") return std::make_shared<ClockOutput>();
  if (name == "pulse") return std::make_shared<PulseOutput>();
  if (name == "auto") {
    try {
      return std::make_shared<PulseOutput>();
    } catch (const ZR::ZRError& e) {
      KO_LOG(logCategory(), ko::log::warning, "makeAudioOutput")
          << "no sound server to play on (" << e.what()
          << "): using the silent clock output, paced like a sound card";
      return std::make_shared<ClockOutput>();
    }
  }
  throw ZR::ZRError("AudioOutput", "open",
                    "unknown audio output \"" + name + "\": choose none, clock, pulse or auto");
}

}  // namespace bexko::audiooutput
