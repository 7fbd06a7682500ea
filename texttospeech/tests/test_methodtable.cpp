#include <zr/zrtexttospeech.h>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

// One published overload: its documentation, word for word, and the arguments of a call by
// name as a remote client sends them, whose number is the overload's arity.
struct PublishedMethod {
  std::string name;
  std::vector<ZR::ZRValue> args;
  std::string description;
  std::vector<ZR::ZRParameterInfo> parameters;
  ZR::ZRParameterInfo returns;  // unnamed: the method returns nothing
  std::vector<ZR::ZRExampleInfo> examples;
};

PublishedMethod doc(std::string name, std::vector<ZR::ZRValue> args, std::string description,
                    std::vector<ZR::ZRParameterInfo> parameters, ZR::ZRParameterInfo returns,
                    const std::string& pythonExample) {
  std::vector<ZR::ZRExampleInfo> examples;
  if (!pythonExample.empty()) examples.push_back({"python", pythonExample});
  return {name, args, description, parameters, returns, examples};
}

const ZR::ZRParameterInfo boolResult{"pReturn", "bool: true if succeeded, false if failed"};
const ZR::ZRParameterInfo statusResult{"pReturn",
                                       "(int) >= 0 if successful, negative error code if failed"};

using MethodTableTest = SpeechServiceTest;

// Every overload is documented as published and served when called by name.
TEST_F(MethodTableTest, TheHostDescribesAndCallsByNameEveryOverloadInOrder) {
  const auto module = host.broker()->getModuleByName("ZRTextToSpeech");
  ASSERT_TRUE(module);
  const ZR::ZRModuleInfo info = module->moduleInfo();
  EXPECT_EQ(info.description,
            "This module embeds a speech synthetizer whose role is to convert text commands into "
            "sound waves that are then either sent to Bex's loudspeakers or written into a file. "
            "This service supports several languages and some parameters of the synthetizer can "
            "be tuned to change each language's synthetic voice.");
  EXPECT_EQ(info.examples, (std::vector<ZR::ZRExampleInfo>{
                               {"python",
                                "#Create a proxy on the text-to-speech module\ntts = "
                                "ZRProxy(\"ZRTextToSpeech\")\ntts.say(\"Hello World!\")\n"}}));
  // The order in which the host lists signals is its own.
  EXPECT_THAT(info.signals, ::testing::UnorderedElementsAre("synchroTTS", "languageTTS"));

  // Every published overload in registration order.
  const ZR::ZRValue noLanguages = scriptedPackage("documentation", {}).toValue();
  const std::string soundFile = host.root() + "/sample_text.raw";
  const std::vector<PublishedMethod> expected = {
      doc("say", {"Hello"},
          "Performs the text-to-speech operations : it takes a std::string as input and outputs "
          "a sound in both speakers. String encoding must be UTF8.",
          {{"stringToSay", "Text to say, encoded in UTF-8."}}, {},
          "#Says a text std::string\ntts = ZRProxy(\"ZRTextToSpeech\")\ntts.say(\"This is a "
          "sample text!\")\n"),
      doc("say", {"Bonjour", "French"},
          "Performs the text-to-speech operations in a specific language: it takes a std::string "
          "as input and outputs a sound in both speakers. String encoding must be UTF8. Once the "
          "text is said, the language is set back to its initial value.",
          {{"stringToSay", "Text to say, encoded in UTF-8."},
           {"language", "Language used to say the text."}},
          {},
          "#Says a test std::string\ntts = ZRProxy(\"ZRTextToSpeech\")\ntts.say(\"This is a "
          "sample text in English!\", \"English\")\n"),
      doc("sayToFile", {"Hello", soundFile},
          "Performs the text-to-speech operations: it takes a std::string as input and outputs "
          "the corresponding audio signal in the specified file.",
          {{"pStringToSay", "Text to say, encoded in UTF-8."},
           {"pFileName",
            "RAW file where to store the generated signal. The signal is encoded with a sample "
            "rate of 22050Hz, format S16_LE, 2 channels."}},
          {"Id", "Id of the task. Can be used to interrupt it."},
          "#Says a test std::string, and save it into a file\ntts = "
          "ZRProxy(\"ZRTextToSpeech\")\ntts.sayToFile(\"This is a sample text, written in a "
          "file!\", \"/tmp/sample_text.raw\")\n"),
      doc("stopAll", {}, "This method stops the current and all the pending tasks immediately.", {},
          {}, ""),
      doc("setLanguage", {"French"},
          "Changes the language used by the Text-to-Speech engine. It automatically changes the "
          "voice used since each of them is related to a unique language. If you want that "
          "change to take effect automatically after reboot of your robot, refer to the robot "
          "web page (setting page).",
          {{"pLanguage",
            "Language name. Must belong to the languages available in TTS (can be obtained with "
            "the getAvailableLanguages method).  It should be an identifier std::string."}},
          {},
          "#Sets the language to english\ntts = "
          "ZRProxy(\"ZRTextToSpeech\")\ntts.setLanguage(\"English\")\n"),
      doc("getLanguage", {}, "Returns the language currently used by the text-to-speech engine.",
          {}, {"pLanguage", "Language of the current voice."},
          "//gets the language of the current voice\ntts = ZRProxy(\"ZRTextToSpeech\")\nlang = "
          "tts.getLanguage();\n"),
      doc("getAvailableLanguages", {}, "Outputs the languages installed on the system.", {},
          {"pLanguage",
           "Array of std::string that contains the languages installed on the system."},
          "tts = ZRProxy(\"ZRTextToSpeech\")\nlang = tts.getAvailableLanguages();\n"),
      doc("getSupportedLanguages", {},
          "Outputs all the languages supported (may be installed or not).", {},
          {"pLanguages",
           "Array of std::string that contains all the supported languages (may be installed or "
           "not)."},
          "tts = ZRProxy(\"ZRTextToSpeech\")\nlang = tts.getSupportedLanguages()\n"),
      doc("resetSpeed", {},
          "Changes the parameters of the voice. For now, it is only possible to reset the voice "
          "speed.",
          {{"pEffectName", "Name of the parameter."}}, statusResult, ""),
      doc("setParameter", {"pitchShift", 1.5},
          "Changes the parameters of the voice. The available parameters are: \n \t pitchShift: "
          "applies a pitch shifting to the voice. The value indicates the ratio between the new "
          "fundamental frequencies and the old ones (examples: 2.0: an octave above, 1.5: a "
          "quint above). Correct range is (1.0 -- 4), or 0 to disable effect.\n \t doubleVoice: "
          "adds a second voice to the first one. The value indicates the ratio between the "
          "second voice fundamental frequency and the first one. Correct range is (1.0 -- 4), or "
          "0 to disable effect \n \t doubleVoiceLevel: the corresponding value is the level of "
          "the double voice (1.0: equal to the main voice one). Correct range is (0 -- 4). \n \t "
          "doubleVoiceTimeShift: the corresponding value is the delay between the double voice "
          "and the main one. Correct range is (0 -- 0.5) \n If the effect value is not "
          "available, the effect parameter remains unchanged.",
          {{"pEffectName", "Name of the parameter."}, {"pEffectValue", "Value of the parameter."}},
          statusResult,
          "tts = ZRProxy(\"ZRTextToSpeech\")\n#Applies a pitch shifting to the "
          "voice\ntts.setParameter(\"pitchShift\", 1.5)\n#Deactivates double "
          "voice\ntts.setParameter(\"doubleVoice\", 0.0)\n"),
      doc("getParameter", {"pitchShift"},
          "Returns the value of one of the voice parameters. The available parameters are: "
          "\"pitchShift\", \"doubleVoice\",\"doubleVoiceLevel\" and \"doubleVoiceTimeShift\"",
          {{"pParameterName", "Name of the parameter."}},
          {"pReturn", "Value of the specified parameter"},
          "#Gets the value of the pitch shift and displays it\ntts = "
          "ZRProxy(\"ZRTextToSpeech\")\nps=tts.getParameter(\"pitchShift\")\nprint ps"),
      doc("setVoice", {"Julie"},
          "Changes the voice used by the text-to-speech engine. The voice identifier must belong "
          "to the installed voices, that can be listed using the 'getAvailableVoices' method. If "
          "the voice is not available, it remains unchanged. No exception is thrown in this "
          "case. For the time being, only two voices are available by default : Kenny22Enhanced "
          "(English voice) and Julie22Enhanced (French voice)",
          {{"pVoiceID", "The voice (as a std::string)."}}, {},
          "tts = ZRProxy(\"ZRTextToSpeech\")\n#Sets the voice of the synthesis to the french "
          "voice Julie22Enhanced\ntts.setVoice(\"Julie22Enhanced\")\n"),
      doc("getVoice", {}, "Returns the voice currently used by the text-to-speech engine.", {},
          {"pVoice", "Name of the current voice"},
          "tts = ZRProxy(\"ZRTextToSpeech\")\n#Gets the current voice of the synthesis "
          "engine\nvoice = tts.getVoice()\n"),
      doc("getAvailableVoices", {},
          "Outputs the available voices. The returned list contains the voice IDs.", {},
          {"pVoiceList", " Array of std::string containing the voices installed on the system."},
          "tts = ZRProxy(\"ZRTextToSpeech\")\n#Lists the installed voices\nvoicelist = "
          "tts.getAvailableVoices()\nprint voicelist\n"),
      doc("setVolume", {0.5}, "Sets the volume of text-to-speech output.",
          {{"volume", "Volume (between 0.0 and 1.0)."}}, {},
          "tts = ZRProxy(\"ZRTextToSpeech\")\n#Changes the volume\ntts.setVolume(0.5)\n"),
      doc("getVolume", {}, "Fetches the current volume the text to speech.", {},
          {"pReturn", "Volume (integer between 0 and 100)."},
          "tts = ZRProxy(\"ZRTextToSpeech\")\n#Gets the volume\na= tts.getVolume()\nprint a\n"),
      doc("locale", {}, "Get the locale associate to the current language.", {},
          {"pReturn", "A string with xx_XX format (region_country)"},
          "tts = ZRProxy(\"ZRTextToSpeech\")\n#Get locale\na= tts.loacle()\nprint a\n"),
      doc("loadVoicePreference", {"Custom"},
          "Loads a set of voice parameters defined in a xml file contained in the preferences "
          "folder.The name of the xml file must begin with ZRTextToSpeech_Voice_ ",
          {{"pPreferenceName", "Name of the voice preference."}}, {},
          "tts = ZRProxy(\"ZRTextToSpeech\")\n//loads the set of voice parameters contained in "
          "the ZRTextToSpeech_Voice_BexOfficialVoiceEnglish.xml "
          "file\ntts.loadVoicePreference(\"BexOfficialVoiceEnglish\");\n"),
      doc("_setDefaultLanguage", {"English"},
          "Sets a language as the default language for the synthesis engine",
          {{"Language", "The language among those available on your robot as a String"}}, {},
          "tts = ZRProxy(\"ZRTextToSpeech\")\n#Set a language as the default "
          "language\ntts._setDefaultLanguage('Spanish')\n"),
      doc("setLanguageDefaultVoice", {"English", "Sam"},
          "Sets a voice as the default voice for the corresponding language",
          {{"Language", "The language among those available on your robot as a String"},
           {"Voice", "The voice among those available on your robot as a String"}},
          {},
          "tts = ZRProxy(\"ZRTextToSpeech\")\n#Set Kenny22Enhanced as the default voice for "
          "English language\ntts.setLanguageDefaultVoice('English','Kenny22Enhanced')\n"),
      doc("_setDefaultVoice", {},
          "Sets the default voice for the current language, if there's one.", {}, {},
          "tts = ZRProxy(\"ZRTextToSpeech\")\ntts.setDefaultVoice()\n"),
      doc("_bexStoreApplicationInstalled", {"packageInstalled", noLanguages, ""},
          "reload the engine if new application installed is a language", {}, {}, ""),
      doc("_bexStoreApplicationUninstalled", {"packageRemoved", noLanguages, ""},
          "reload the engine if application uninstalled is a language", {}, {}, ""),
      doc("_pause", {}, "Pause the current synthesis", {}, {}, ""),
      doc("_resume", {}, "Resume the current synthesis", {}, {}, ""),
      doc("_enableFilter", {true}, "Enables the filtering of audio output",
          {{"enable", "activate or not"}}, {}, ""),
      doc("_loadEffect", {"/tmp/robot.fx"}, "Load an effect on the voice.",
          {{"effectPath", "path to the file of the effect to load."}}, {}, ""),
      doc("_applyEffect", {"robot", false}, "Enables the filtering of audio output",
          {{"effectName", "name of the effect"}, {"enable", "activate or not"}}, {}, ""),
      doc("_diagnosis", {}, "Logs info about the current state of the TTS.", {}, {}, ""),
      doc("_showVoiceSettings", {}, "Logs voice settings.", {}, {}, ""),
      doc("showDictionary", {}, "Shows the Dictionary.", {}, {}, ""),
      doc("reset", {}, "Reset ZRTextToSpeech to his default state.", {}, {}, ""),
      doc("_unloadDictionary", {}, "Unload the dictionary.", {}, {}, ""),
      doc("deleteFromDictionary", {"noun", "robot"}, "Unload the dictionary.",
          {{"word", "the word you wish to delete, does not have to be in japanese."}}, boolResult,
          ""),
      doc("deleteFromDictionary", {"robot"}, "Unload the dictionary.",
          {{"word", "the word you wish to delete, does not have to be in japanese."}}, boolResult,
          ""),
      doc("addToDictionary", {"noun", "robot", "1", "robot", "0"}, "Add a word to the library",
          {{"type", "the type of word you wish to insert, does not have to be in japanese."},
           {"word", "the word you wish to insert, does not have to be in japanese."},
           {"priority", "the priority of the word."},
           {"phonetic", "the phonetic pronouciation in KATAKANA."},
           {"accent", "syllabus and accentuation"}},
          boolResult, "tts = ZRProxy(\"ZRTextToSpeech\")\ntts.AddToDictionary()#TODO\n"),
      doc("addToDictionary", {"robot", "row bot"}, "Add a word to the library",
          {{"text", "the text you wish to insert."}, {"toReplace", "text to replace."}}, boolResult,
          ""),
      doc("_loadDictionary", {}, "TODO", {}, {},
          "tts = ZRProxy(\"ZRTextToSpeech\")\ntts._loadDictionary()#TODO\n"),
  };
  const auto call = [this](const std::string& method, const std::vector<ZR::ZRValue>& args) {
    return host.broker()->call("ZRTextToSpeech", method, args);
  };
  writeVoiceSettings(configFile("ZRTextToSpeech_Voice_Custom.xml"),
                     ZR::VoiceSetting(ZR::VOICE, "Kenny"), "Custom");
  ASSERT_EQ(info.methods.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const ZR::ZRMethodInfo& method = info.methods[i];
    const PublishedMethod& want = expected[i];
    SCOPED_TRACE(std::to_string(i) + ": " + want.name);
    EXPECT_EQ(method.name, want.name);
    EXPECT_EQ(method.moduleName, "ZRTextToSpeech");
    EXPECT_EQ(method.arity, static_cast<int>(want.args.size()));
    EXPECT_EQ(method.description, want.description);
    EXPECT_EQ(method.parameters, want.parameters);
    EXPECT_EQ(method.hasReturn, !want.returns.name.empty());
    EXPECT_TRUE(!method.hasReturn || method.returnInfo == want.returns);
    EXPECT_EQ(method.examples, want.examples);
    EXPECT_NO_THROW(call(want.name, want.args));
  }

  // Results come back as values.
  EXPECT_EQ(call("getVolume", {}), ZR::ZRValue(0.5f));
  EXPECT_EQ(call("getLanguage", {}), ZR::ZRValue("English"));
  call("setParameter", {"doubleVoiceLevel", 2});
  EXPECT_EQ(call("getParameter", {"doubleVoiceLevel"}), ZR::ZRValue(2.0f));
  EXPECT_EQ(call("deleteFromDictionary", {"nothing"}), ZR::ZRValue(false));
  // The filter and the effects reached the engine manager.
  EXPECT_TRUE(tts->engine()->isFilterEnabled());
  EXPECT_THAT(tts->engine()->loadedEffects(), ::testing::Contains("robot"));
  call("_enableFilter", {false});
  EXPECT_FALSE(tts->engine()->isFilterEnabled());
}

}  // namespace
}  // namespace bexko::testing
