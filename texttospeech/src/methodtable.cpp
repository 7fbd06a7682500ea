// The published method table of the speech service: the module documentation, every method
// with its documentation and binding, then the two signals.

#include <string>

#include <zr/zrtexttospeech.h>

namespace ZR {

namespace {

// Every method but stopAll is documented as belonging to the literal module name, whatever
// name the module was registered under.
const char* const publishedModuleName = "ZRTextToSpeech";

}  // namespace

void ZRTextToSpeech::xPublishMethods() {
  setModuleDescription(
      "This module embeds a speech synthetizer whose role is to convert text commands into sound "
      "waves that are then either sent to Bex's loudspeakers or written into a file. This service "
      "supports several languages and some parameters of the synthetizer can be tuned to change "
      "each language's synthetic voice.");
  addModuleExample("python",
                   "#Create a proxy on the text-to-speech module\ntts = "
                   "ZRProxy(\"ZRTextToSpeech\")\ntts.say(\"Hello World!\")\n");

  // The event keys that init() declares, documented for clients that watch them.
  addModuleEvent(strTextDoneEvent,
                 "int: 0 when a sentence starts; 1 once it has been heard to its end (with an "
                 "audio output; without one it stays 0).");
  addModuleEvent(strTextStartedEvent,
                 "int: 1 when a sentence starts; 0 once it has been heard to its end (with an "
                 "audio output).");
  addModuleEvent(strCurrentBookMarkEvent,
                 "int: the number of the bookmark (\\mrk=N\\ in the text) just reached; 0 at "
                 "the end of a sentence.");
  addModuleEvent(strPositionOfCurrentWordEvent,
                 "int: the position in the text of the word being said; 0 at the end of a "
                 "sentence.");
  addModuleEvent(strCurrentWordEvent,
                 "string: the word being said; \"\" at the end of a sentence.");
  addModuleEvent(strCurrentSentenceEvent,
                 "string: the sentence being said, without its tags; \"\" once it is done (not "
                 "raised for sayToFile).");
  addModuleEvent(strStatusEvent,
                 "[int id, string status]: the progress of the task id, status one of "
                 "\"enqueued\", \"started\", \"done\", \"thrown\", \"stopped\"; "
                 "[-1, \"done\"] at start.");
  addModuleEvent(strTextInterruptedEvent, "int: 1 when a stop interrupts the sentence being said.");

  // say, deleteFromDictionary and addToDictionary are published twice under one name; the host
  // tells their overloads apart by argument count.
  functionName("say", publishedModuleName,
               "Performs the text-to-speech operations : it takes a std::string as input and "
               "outputs a sound in both speakers. String encoding must be UTF8.",
               0);
  addParam("stringToSay", "Text to say, encoded in UTF-8.");
  addMethodExample("python",
                   "#Says a text std::string\ntts = ZRProxy(\"ZRTextToSpeech\")\ntts.say(\"This is "
                   "a sample text!\")\n");
  bindMethodOverload(createFunctor(
      this, static_cast<void (ZRTextToSpeech::*)(const std::string&)>(&ZRTextToSpeech::say)));

  functionName("say", publishedModuleName,
               "Performs the text-to-speech operations in a specific language: it takes a "
               "std::string as input and outputs a sound in both speakers. String encoding must be "
               "UTF8. Once the text is said, the language is set back to its initial value.",
               0);
  addParam("stringToSay", "Text to say, encoded in UTF-8.");
  addParam("language", "Language used to say the text.");
  addMethodExample("python",
                   "#Says a test std::string\ntts = ZRProxy(\"ZRTextToSpeech\")\ntts.say(\"This is "
                   "a sample text in English!\", \"English\")\n");
  bindMethodOverload(createFunctor(
      this, static_cast<void (ZRTextToSpeech::*)(const std::string&, const std::string&)>(
                &ZRTextToSpeech::say)));

  functionName("sayToFile", publishedModuleName,
               "Performs the text-to-speech operations: it takes a std::string as input and "
               "outputs the corresponding audio signal in the specified file.",
               0);
  addParam("pStringToSay", "Text to say, encoded in UTF-8.");
  addParam("pFileName",
           "RAW file where to store the generated signal. The signal is encoded with a sample rate "
           "of 22050Hz, format S16_LE, 2 channels.");
  setReturn("Id", "Id of the task. Can be used to interrupt it.");
  addMethodExample("python",
                   "#Says a test std::string, and save it into a file\ntts = "
                   "ZRProxy(\"ZRTextToSpeech\")\ntts.sayToFile(\"This is a sample text, written in "
                   "a file!\", \"/tmp/sample_text.raw\")\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this, &ZRTextToSpeech::sayToFile);

  functionName("stopAll", getName(),
               "This method stops the current and all the pending tasks immediately.", 0);
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this, &ZRTextToSpeech::stopAll);

  functionName("setLanguage", publishedModuleName,
               "Changes the language used by the Text-to-Speech engine. It automatically changes "
               "the voice used since each of them is related to a unique language. If you want "
               "that change to take effect automatically after reboot of your robot, refer to the "
               "robot web page (setting page).",
               0);
  addParam("pLanguage",
           "Language name. Must belong to the languages available in TTS (can be obtained with the "
           "getAvailableLanguages method).  It should be an identifier std::string.");
  addMethodExample("python",
                   "#Sets the language to english\ntts = "
                   "ZRProxy(\"ZRTextToSpeech\")\ntts.setLanguage(\"English\")\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::setLanguage);

  functionName("getLanguage", publishedModuleName,
               "Returns the language currently used by the text-to-speech engine.", 0);
  setReturn("pLanguage", "Language of the current voice.");
  addMethodExample("python",
                   "//gets the language of the current voice\ntts = "
                   "ZRProxy(\"ZRTextToSpeech\")\nlang = tts.getLanguage();\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::getLanguage);

  functionName("getAvailableLanguages", publishedModuleName,
               "Outputs the languages installed on the system.", 0);
  setReturn("pLanguage",
            "Array of std::string that contains the languages installed on the system.");
  addMethodExample("python",
                   "tts = ZRProxy(\"ZRTextToSpeech\")\nlang = tts.getAvailableLanguages();\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::getAvailableLanguages);

  functionName("getSupportedLanguages", publishedModuleName,
               "Outputs all the languages supported (may be installed or not).", 0);
  setReturn(
      "pLanguages",
      "Array of std::string that contains all the supported languages (may be installed or not).");
  addMethodExample("python",
                   "tts = ZRProxy(\"ZRTextToSpeech\")\nlang = tts.getSupportedLanguages()\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::getSupportedLanguages);

  functionName(
      "resetSpeed", publishedModuleName,
      "Changes the parameters of the voice. For now, it is only possible to reset the voice speed.",
      0);
  addParam("pEffectName", "Name of the parameter.");
  setReturn("pReturn", "(int) >= 0 if successful, negative error code if failed");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this, &ZRTextToSpeech::resetSpeed);

  functionName(
      "setParameter", publishedModuleName,
      "Changes the parameters of the voice. The available parameters are: \n \t pitchShift: "
      "applies a pitch shifting to the voice. The value indicates the ratio between the new "
      "fundamental frequencies and the old ones (examples: 2.0: an octave above, 1.5: a quint "
      "above). Correct range is (1.0 -- 4), or 0 to disable effect.\n \t doubleVoice: adds a "
      "second voice to the first one. The value indicates the ratio between the second voice "
      "fundamental frequency and the first one. Correct range is (1.0 -- 4), or 0 to disable "
      "effect \n \t doubleVoiceLevel: the corresponding value is the level of the double voice "
      "(1.0: equal to the main voice one). Correct range is (0 -- 4). \n \t doubleVoiceTimeShift: "
      "the corresponding value is the delay between the double voice and the main one. Correct "
      "range is (0 -- 0.5) \n If the effect value is not available, the effect parameter remains "
      "unchanged.",
      0);
  addParam("pEffectName", "Name of the parameter.");
  addParam("pEffectValue", "Value of the parameter.");
  setReturn("pReturn", "(int) >= 0 if successful, negative error code if failed");
  addMethodExample("python",
                   "tts = ZRProxy(\"ZRTextToSpeech\")\n#Applies a pitch shifting to the "
                   "voice\ntts.setParameter(\"pitchShift\", 1.5)\n#Deactivates double "
                   "voice\ntts.setParameter(\"doubleVoice\", 0.0)\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::setParameter);

  functionName("getParameter", publishedModuleName,
               "Returns the value of one of the voice parameters. The available parameters are: "
               "\"pitchShift\", \"doubleVoice\",\"doubleVoiceLevel\" and \"doubleVoiceTimeShift\"",
               0);
  addParam("pParameterName", "Name of the parameter.");
  setReturn("pReturn", "Value of the specified parameter");
  addMethodExample("python",
                   "#Gets the value of the pitch shift and displays it\ntts = "
                   "ZRProxy(\"ZRTextToSpeech\")\nps=tts.getParameter(\"pitchShift\")\nprint ps");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::getParameter);

  functionName("setVoice", publishedModuleName,
               "Changes the voice used by the text-to-speech engine. The voice identifier must "
               "belong to the installed voices, that can be listed using the 'getAvailableVoices' "
               "method. If the voice is not available, it remains unchanged. No exception is "
               "thrown in this case. For the time being, only two voices are available by default "
               ": Kenny22Enhanced (English voice) and Julie22Enhanced (French voice)",
               0);
  addParam("pVoiceID", "The voice (as a std::string).");
  addMethodExample("python",
                   "tts = ZRProxy(\"ZRTextToSpeech\")\n#Sets the voice of the synthesis to the "
                   "french voice Julie22Enhanced\ntts.setVoice(\"Julie22Enhanced\")\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this, &ZRTextToSpeech::setVoice);

  functionName("getVoice", publishedModuleName,
               "Returns the voice currently used by the text-to-speech engine.", 0);
  setReturn("pVoice", "Name of the current voice");
  addMethodExample("python",
                   "tts = ZRProxy(\"ZRTextToSpeech\")\n#Gets the current voice of the synthesis "
                   "engine\nvoice = tts.getVoice()\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this, &ZRTextToSpeech::getVoice);

  functionName("getAvailableVoices", publishedModuleName,
               "Outputs the available voices. The returned list contains the voice IDs.", 0);
  setReturn("pVoiceList", " Array of std::string containing the voices installed on the system.");
  addMethodExample("python",
                   "tts = ZRProxy(\"ZRTextToSpeech\")\n#Lists the installed voices\nvoicelist = "
                   "tts.getAvailableVoices()\nprint voicelist\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::getAvailableVoices);

  functionName("setVolume", publishedModuleName, "Sets the volume of text-to-speech output.", 0);
  addParam("volume", "Volume (between 0.0 and 1.0).");
  addMethodExample("python",
                   "tts = ZRProxy(\"ZRTextToSpeech\")\n#Changes the volume\ntts.setVolume(0.5)\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this, &ZRTextToSpeech::setVolume);

  functionName("getVolume", publishedModuleName, "Fetches the current volume the text to speech.",
               0);
  setReturn("pReturn", "Volume (integer between 0 and 100).");
  addMethodExample(
      "python",
      "tts = ZRProxy(\"ZRTextToSpeech\")\n#Gets the volume\na= tts.getVolume()\nprint a\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this, &ZRTextToSpeech::getVolume);

  functionName("locale", publishedModuleName, "Get the locale associate to the current language.",
               0);
  setReturn("pReturn", "A string with xx_XX format (region_country)");
  addMethodExample("python",
                   "tts = ZRProxy(\"ZRTextToSpeech\")\n#Get locale\na= tts.loacle()\nprint a\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this, &ZRTextToSpeech::locale);

  functionName("loadVoicePreference", publishedModuleName,
               "Loads a set of voice parameters defined in a xml file contained in the preferences "
               "folder.The name of the xml file must begin with ZRTextToSpeech_Voice_ ",
               0);
  addParam("pPreferenceName", "Name of the voice preference.");
  addMethodExample("python",
                   "tts = ZRProxy(\"ZRTextToSpeech\")\n//loads the set of voice parameters "
                   "contained in the ZRTextToSpeech_Voice_BexOfficialVoiceEnglish.xml "
                   "file\ntts.loadVoicePreference(\"BexOfficialVoiceEnglish\");\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::loadVoicePreference);

  functionName("_setDefaultLanguage", publishedModuleName,
               "Sets a language as the default language for the synthesis engine", 0);
  addParam("Language", "The language among those available on your robot as a String");
  addMethodExample("python",
                   "tts = ZRProxy(\"ZRTextToSpeech\")\n#Set a language as the default "
                   "language\ntts._setDefaultLanguage('Spanish')\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::setDefaultLanguage);

  functionName("setLanguageDefaultVoice", publishedModuleName,
               "Sets a voice as the default voice for the corresponding language", 0);
  addParam("Language", "The language among those available on your robot as a String");
  addParam("Voice", "The voice among those available on your robot as a String");
  addMethodExample(
      "python",
      "tts = ZRProxy(\"ZRTextToSpeech\")\n#Set Kenny22Enhanced as the default voice for English "
      "language\ntts.setLanguageDefaultVoice('English','Kenny22Enhanced')\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::setLanguageDefaultVoice);

  functionName("_setDefaultVoice", publishedModuleName,
               "Sets the default voice for the current language, if there's one.", 0);
  addMethodExample("python", "tts = ZRProxy(\"ZRTextToSpeech\")\ntts.setDefaultVoice()\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::setDefaultVoice);

  functionName("_bexStoreApplicationInstalled", publishedModuleName,
               "reload the engine if new application installed is a language", 0);
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::bexStoreApplicationInstalled);

  functionName("_bexStoreApplicationUninstalled", publishedModuleName,
               "reload the engine if application uninstalled is a language", 0);
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::bexStoreApplicationUninstalled);

  functionName("_pause", publishedModuleName, "Pause the current synthesis", 0);
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this, &ZRTextToSpeech::pause);

  functionName("_resume", publishedModuleName, "Resume the current synthesis", 0);
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this, &ZRTextToSpeech::resume);

  functionName("_enableFilter", publishedModuleName, "Enables the filtering of audio output", 0);
  addParam("enable", "activate or not");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::enableFilter);

  functionName("_loadEffect", publishedModuleName, "Load an effect on the voice.", 0);
  addParam("effectPath", "path to the file of the effect to load.");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this, &ZRTextToSpeech::loadEffect);

  functionName("_applyEffect", publishedModuleName, "Enables the filtering of audio output", 0);
  addParam("effectName", "name of the effect");
  addParam("enable", "activate or not");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::applyEffect);

  functionName("_diagnosis", publishedModuleName, "Logs info about the current state of the TTS.",
               0);
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this, &ZRTextToSpeech::diagnosis);

  functionName("_showVoiceSettings", publishedModuleName, "Logs voice settings.", 0);
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::showVoiceSettings);

  functionName("showDictionary", publishedModuleName, "Shows the Dictionary.", 0);
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::showDictionary);

  functionName("reset", publishedModuleName, "Reset ZRTextToSpeech to his default state.", 0);
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this, &ZRTextToSpeech::reset);

  functionName("_unloadDictionary", publishedModuleName, "Unload the dictionary.", 0);
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::unloadDictionary);

  functionName("deleteFromDictionary", publishedModuleName, "Unload the dictionary.", 0);
  addParam("word", "the word you wish to delete, does not have to be in japanese.");
  setReturn("pReturn", "bool: true if succeeded, false if failed");
  bindMethodOverload(createFunctor(
      this, static_cast<bool (ZRTextToSpeech::*)(const std::string&, const std::string&)>(
                &ZRTextToSpeech::deleteFromDictionary)));

  functionName("deleteFromDictionary", publishedModuleName, "Unload the dictionary.", 0);
  addParam("word", "the word you wish to delete, does not have to be in japanese.");
  setReturn("pReturn", "bool: true if succeeded, false if failed");
  bindMethodOverload(createFunctor(this, static_cast<bool (ZRTextToSpeech::*)(const std::string&)>(
                                             &ZRTextToSpeech::deleteFromDictionary)));

  functionName("addToDictionary", publishedModuleName, "Add a word to the library", 0);
  addParam("type", "the type of word you wish to insert, does not have to be in japanese.");
  addParam("word", "the word you wish to insert, does not have to be in japanese.");
  addParam("priority", "the priority of the word.");
  addParam("phonetic", "the phonetic pronouciation in KATAKANA.");
  addParam("accent", "syllabus and accentuation");
  setReturn("pReturn", "bool: true if succeeded, false if failed");
  addMethodExample("python", "tts = ZRProxy(\"ZRTextToSpeech\")\ntts.AddToDictionary()#TODO\n");
  bindMethodOverload(createFunctor(
      this, static_cast<bool (ZRTextToSpeech::*)(
                const std::string&, const std::string&, const std::string&, const std::string&,
                const std::string&)>(&ZRTextToSpeech::addToDictionary)));

  functionName("addToDictionary", publishedModuleName, "Add a word to the library", 0);
  addParam("text", "the text you wish to insert.");
  addParam("toReplace", "text to replace.");
  setReturn("pReturn", "bool: true if succeeded, false if failed");
  bindMethodOverload(createFunctor(
      this, static_cast<bool (ZRTextToSpeech::*)(const std::string&, const std::string&)>(
                &ZRTextToSpeech::addToDictionary)));

  functionName("_loadDictionary", publishedModuleName, "TODO", 0);
  addMethodExample("python", "tts = ZRProxy(\"ZRTextToSpeech\")\ntts._loadDictionary()#TODO\n");
  objectBuilder().advertiseMethod(getCurrentMethodDescription(), this,
                                  &ZRTextToSpeech::loadDictionary);
  objectBuilder().advertiseSignal("synchroTTS", synchroTTS);
  objectBuilder().advertiseSignal("languageTTS", languageTTS);

  // Methods that never wait for a sentence (they take at most the queue lock for a moment):
  // the host answers them while says wait their turn, so that a stop or a read is never held
  // behind a queue of sentences.
  for (const char* method :
       {"stopAll", "_pause", "_resume", "getVolume", "setVolume", "getLanguage",
        "getAvailableLanguages", "getSupportedLanguages", "getParameter", "setParameter",
        "resetSpeed", "getVoice", "getAvailableVoices", "locale", "showVoiceSettings"}) {
    setMethodPrompt(method);
  }
  // Reads of the service's own state, under a lock that is only ever held for a moment (not
  // getParameter, which asks the engine's backend, busy while it synthesises): the host may
  // answer them on the thread that received them.
  for (const char* method : {"getVolume", "getLanguage", "getAvailableLanguages",
                             "getSupportedLanguages", "getVoice", "getAvailableVoices", "locale"}) {
    setMethodQuick(method);
  }
}

}  // namespace ZR
