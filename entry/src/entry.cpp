// The entry points of the module library: the host loads the library with dlopen and calls
// _createModule with its broker; the two modules created here are then reached through the
// broker. Nothing else of the library is exported.
#include <string>

#include <boost/shared_ptr.hpp>

#include <ko/log.h>
#include <zr/zraudioplayerdesktop.h>
#include <zr/zrbroker.h>
#include <zr/zrbrokermanager.h>
#include <zr/zrerror.h>
#include <zr/zrmodule.h>
#include <zr/zrtexttospeech.h>

#define BEXKO_TTS_ENTRY extern "C" __attribute__((visibility("default")))

namespace {

const char* const kFunction = "_createModule";

ko::log::CategoryType playerCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("ZRAudioPlayer");
  return category;
}

ko::log::CategoryType libraryCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("audioout");
  return category;
}

}  // namespace

/// Registers the broker with its broker manager, then creates the player (when the player
/// program is on PATH) and the speech service. A module that cannot be created is logged and
/// never prevents the other; the result is always 0. Only ZRError is caught.
BEXKO_TTS_ENTRY int _createModule(boost::shared_ptr<ZR::ZRBroker> broker) {
  {
    boost::shared_ptr<ZR::ZRBrokerManager> manager = broker->getBrokerManager().lock();
    ZR::ZRBrokerManager::setInstance(manager);
  }
  if (boost::shared_ptr<ZR::ZRBrokerManager> instance = ZR::ZRBrokerManager::getInstance()) {
    instance->addBroker(broker);
  } else {
    // A broker without a manager still serves its modules; there is nothing to register with.
    KO_LOG(libraryCategory(), ko::log::warning, kFunction)
        << "The broker " << broker->getName() << " has no broker manager";
  }

  try {
    if (!ZR::ZRAudioPlayerDesktop::findAudioPlayer().empty()) {
      ZR::ZRModule::createModule<ZR::ZRAudioPlayerDesktop>(broker);
    } else {
      KO_LOG(playerCategory(), ko::log::verbose, kFunction)
          << "Failed to launch ZRAudioPlayer module: AudioPlayer is not found";
    }
  } catch (const ZR::ZRError& e) {
    KO_LOG(playerCategory(), ko::log::info, kFunction)
        << "Failed to launch ZRAudioPlayer module: " << e.what();
  }

  try {
    ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(broker);
  } catch (const ZR::ZRError& e) {
    KO_LOG(libraryCategory(), ko::log::error, kFunction)
        << "Failed to launch ZRTextToSpeech module: " << e.what();
  }
  return 0;
}

/// Does nothing: the modules stay registered and the host shuts them down.
BEXKO_TTS_ENTRY int _closeModule() { return 0; }
