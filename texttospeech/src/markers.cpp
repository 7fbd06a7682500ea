// Bookmark timing: each bookmark the engine reports is raised when the listener hears its point
// of the sentence, one timer at a time on the host's event loop; pause marks go to the
// animated-speech module when a sentence is cleaned up.
#include <zr/zrtexttospeech.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iterator>

#include <boost/bind/bind.hpp>

#include <ko/eventloop.h>
#include <zr/tts/textutils.h>
#include <zr/zrerror.h>

namespace ZR {

namespace {

ko::log::CategoryType logCategory() {
  static const ko::log::CategoryType category = ko::log::addCategory("audio.zrtexttospeech.main");
  return category;
}

// Bookmarks are raised this much before their audio position.
constexpr std::uint32_t kMarkerLeadMs = 20;

// Milliseconds of audio before a byte position; the position is taken as a signed number.
std::uint32_t positionToMsec(std::uint32_t position, const ko::AudioSampleInfo& info) {
  return static_cast<std::uint32_t>(
      ko::audioBytesToMsec(static_cast<long long>(static_cast<std::int32_t>(position)), info));
}

}  // namespace

void ZRTextToSpeech::scheduleMarker(ZRTextToSpeechMarker& marker) {
  if (sentencePlays) {
    bytesSent = xPlayedBytes();
  }
  const std::uint32_t current = positionToMsec(bytesSent, sampleInfo);
  const std::uint32_t markerMs = positionToMsec(marker.position, sampleInfo);
  const std::uint32_t target = markerMs > kMarkerLeadMs ? markerMs - kMarkerLeadMs : markerMs;

  const std::function<void()> raise =
      boost::bind(&ZRTextToSpeech::markerCB, this, ZRTextToSpeechMarker(marker));

  if (target <= current) {
    KO_LOG(logCategory(), ko::log::warning, "scheduleMarker")
        << "Marker " << marker.value << " late raise it now ! Marker position: " << target
        << " Current position: " << current;
    marker.timer = ko::getEventLoop()->asyncDelay(raise, std::chrono::nanoseconds(0));
    return;
  }

  std::uint32_t delay = target - current;
  const std::uint32_t advance = static_cast<std::uint32_t>(mrkAdvance);
  if (delay > advance) {
    delay -= advance;
  }
  KO_LOG(logCategory(), ko::log::verbose, "scheduleMarker")
      << "schedule marker " << marker.value << " in " << delay << " ms "
      << " current " << current << " at " << marker.position / 2 << " samples";
  const std::uint32_t delayMicroseconds = delay * 1000u;
  marker.timer = ko::getEventLoop()->async(raise, delayMicroseconds);
}

void ZRTextToSpeech::markerCB(ZRTextToSpeechMarker marker) {
  const std::uint32_t markerMs = positionToMsec(marker.position, sampleInfo);
  if (marker.timer.isCanceled()) {
    return;
  }

  boost::lock_guard<boost::mutex> lock(markerMutex);
  if (sentencePlays) {
    bytesSent = xPlayedBytes();
  }
  const std::uint32_t current = positionToMsec(bytesSent, sampleInfo);

  auto found = std::find(markers.begin(), markers.end(), marker);
  if (found == markers.end()) {
    KO_LOG(logCategory(), ko::log::info, "markerCB") << "marker not found";
    return;
  }

  try {
    memoryProxy->raiseEvent(strCurrentBookMarkEvent, ZRValue(static_cast<int>(marker.value)));
  } catch (const ZRError& e) {
    // The chain goes on: the next bookmark still gets its timer.
    KO_LOG(logCategory(), ko::log::error, "markerCB")
        << "failed to raise marker " << marker.value << ": " << e.what();
  }
  KO_LOG(logCategory(), ko::log::verbose, "markerCB")
      << "sending marker: " << marker.value << " position msec: " << markerMs
      << " current time in the sink: " << current;

  auto next = std::next(found);
  if (next != markers.end()) {
    scheduleMarker(*next);
  }
  markers.erase(found);
}

void ZRTextToSpeech::flushMarkers() {
  boost::lock_guard<boost::mutex> lock(markerMutex);
  bool first = true;
  for (ZRTextToSpeechMarker& marker : markers) {
    try {
      if (first) {
        marker.timer.cancel();
      }
      memoryProxy->raiseEvent(strCurrentBookMarkEvent, ZRValue(static_cast<int>(marker.value)));
    } catch (const ko::FutureException& e) {
      KO_LOG(logCategory(), ko::log::error, "flushMarkers")
          << " Can't cancel marker " << marker.value << ": " << e.what();
    }
    first = false;
  }
  markers.clear();
}

void ZRTextToSpeech::raiseMrkPause(std::list<ZRTextToSpeechMarker>::iterator it) {
  ko::getEventLoop();
  { boost::lock_guard<boost::mutex> lock(audioMutex); }

  try {
    boost::shared_ptr<ZRBroker> broker = getParentBroker();
    if (!broker) {
      throw ZRError(getName(), "raiseMrkPause", "the broker is gone");
    }
    animatedSpeechProxy = broker->getProxy("ZRAnimatedSpeech", 0);
    animatedSpeechProxy->call<void, int>("_mrkpauseCallback", ZR::makeSpecificId(it->value));
  } catch (const ZRError&) {
    KO_LOG(logCategory(), ko::log::error, "raiseMrkPause")
        << "Cannot call AnimatedSpeech->_mrkpauseCallback.";
  }
  pendingMarkers.erase(it);
}

}  // namespace ZR
