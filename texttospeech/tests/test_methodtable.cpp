#include <zr/zrtexttospeech.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "settingsfixture.h"

namespace {

using bexko::testing::scriptedPackage;
using bexko::testing::ScriptedServiceTest;

// The published documentation, word for word, in registration order.
struct PublishedMethod {
  std::string name;
  int arity;
  std::string description;
  std::vector<ZR::ZRParameterInfo> parameters;
  bool hasReturn;
  ZR::ZRParameterInfo returnInfo;
  std::vector<ZR::ZRExampleInfo> examples;
};

const std::vector<PublishedMethod>& publishedMethods() {
  static const std::vector<PublishedMethod> methods = {
      {"say",
       1,
       "Performs the text-to-speech operations : it takes a std::string as input and outputs a "
       "sound in both speakers. String encoding must be UTF8.",
       {{"stringToSay", "Text to say, encoded in UTF-8."}},
       false,
       {},
       {{"python",
         "#Says a text std::string\ntts = ZRProxy(\"ZRTextToSpeech\")\ntts.say(\"This is a sample "
         "text!\")\n"}}},
      {"say",
       2,
       "Performs the text-to-speech operations in a specific language: it takes a std::string as "
       "input and outputs a sound in both speakers. String encoding must be UTF8. Once the text is "
       "said, the language is set back to its initial value.",
       {{"stringToSay", "Text to say, encoded in UTF-8."},
        {"language", "Language used to say the text."}},
       false,
       {},
       {{"python",
         "#Says a test std::string\ntts = ZRProxy(\"ZRTextToSpeech\")\ntts.say(\"This is a sample "
         "text in English!\", \"English\")\n"}}},
      {"sayToFile",
       2,
       "Performs the text-to-speech operations: it takes a std::string as input and outputs the "
       "corresponding audio signal in the specified file.",
       {{"pStringToSay", "Text to say, encoded in UTF-8."},
        {"pFileName",
         "RAW file where to store the generated signal. The signal is encoded with a sample rate "
         "of 22050Hz, format S16_LE, 2 channels."}},
       true,
       {"Id", "Id of the task. Can be used to interrupt it."},
       {{"python",
         "#Says a test std::string, and save it into a file\ntts = "
         "ZRProxy(\"ZRTextToSpeech\")\ntts.sayToFile(\"This is a sample text, written in a "
         "file!\", \"/tmp/sample_text.raw\")\n"}}},
      {"stopAll",
       0,
       "This method stops the current and all the pending tasks immediately.",
       {},
       false,
       {},
       {}},
      {"setLanguage",
       1,
       "Changes the language used by the Text-to-Speech engine. It automatically changes the voice "
       "used since each of them is related to a unique language. If you want that change to take "
       "effect automatically after reboot of your robot, refer to the robot web page (setting "
       "page).",
       {{"pLanguage",
         "Language name. Must belong to the languages available in TTS (can be obtained with the "
         "getAvailableLanguages method).  It should be an identifier std::string."}},
       false,
       {},
       {{"python",
         "#Sets the language to english\ntts = "
         "ZRProxy(\"ZRTextToSpeech\")\ntts.setLanguage(\"English\")\n"}}},
      {"getLanguage",
       0,
       "Returns the language currently used by the text-to-speech engine.",
       {},
       true,
       {"pLanguage", "Language of the current voice."},
       {{"python",
         "//gets the language of the current voice\ntts = ZRProxy(\"ZRTextToSpeech\")\nlang = "
         "tts.getLanguage();\n"}}},
      {"getAvailableLanguages",
       0,
       "Outputs the languages installed on the system.",
       {},
       true,
       {"pLanguage", "Array of std::string that contains the languages installed on the system."},
       {{"python", "tts = ZRProxy(\"ZRTextToSpeech\")\nlang = tts.getAvailableLanguages();\n"}}},
      {"getSupportedLanguages",
       0,
       "Outputs all the languages supported (may be installed or not).",
       {},
       true,
       {"pLanguages",
        "Array of std::string that contains all the supported languages (may be installed or "
        "not)."},
       {{"python", "tts = ZRProxy(\"ZRTextToSpeech\")\nlang = tts.getSupportedLanguages()\n"}}},
      {"resetSpeed",
       0,
       "Changes the parameters of the voice. For now, it is only possible to reset the voice "
       "speed.",
       {{"pEffectName", "Name of the parameter."}},
       true,
       {"pReturn", "(int) >= 0 if successful, negative error code if failed"},
       {}},
      {"setParameter",
       2,
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
       {{"pEffectName", "Name of the parameter."}, {"pEffectValue", "Value of the parameter."}},
       true,
       {"pReturn", "(int) >= 0 if successful, negative error code if failed"},
       {{"python",
         "tts = ZRProxy(\"ZRTextToSpeech\")\n#Applies a pitch shifting to the "
         "voice\ntts.setParameter(\"pitchShift\", 1.5)\n#Deactivates double "
         "voice\ntts.setParameter(\"doubleVoice\", 0.0)\n"}}},
      {"getParameter",
       1,
       "Returns the value of one of the voice parameters. The available parameters are: "
       "\"pitchShift\", \"doubleVoice\",\"doubleVoiceLevel\" and \"doubleVoiceTimeShift\"",
       {{"pParameterName", "Name of the parameter."}},
       true,
       {"pReturn", "Value of the specified parameter"},
       {{"python",
         "#Gets the value of the pitch shift and displays it\ntts = "
         "ZRProxy(\"ZRTextToSpeech\")\nps=tts.getParameter(\"pitchShift\")\nprint ps"}}},
      {"setVoice",
       1,
       "Changes the voice used by the text-to-speech engine. The voice identifier must belong to "
       "the installed voices, that can be listed using the 'getAvailableVoices' method. If the "
       "voice is not available, it remains unchanged. No exception is thrown in this case. For the "
       "time being, only two voices are available by default : Kenny22Enhanced (English voice) and "
       "Julie22Enhanced (French voice)",
       {{"pVoiceID", "The voice (as a std::string)."}},
       false,
       {},
       {{"python",
         "tts = ZRProxy(\"ZRTextToSpeech\")\n#Sets the voice of the synthesis to the french voice "
         "Julie22Enhanced\ntts.setVoice(\"Julie22Enhanced\")\n"}}},
      {"getVoice",
       0,
       "Returns the voice currently used by the text-to-speech engine.",
       {},
       true,
       {"pVoice", "Name of the current voice"},
       {{"python",
         "tts = ZRProxy(\"ZRTextToSpeech\")\n#Gets the current voice of the synthesis "
         "engine\nvoice = tts.getVoice()\n"}}},
      {"getAvailableVoices",
       0,
       "Outputs the available voices. The returned list contains the voice IDs.",
       {},
       true,
       {"pVoiceList", " Array of std::string containing the voices installed on the system."},
       {{"python",
         "tts = ZRProxy(\"ZRTextToSpeech\")\n#Lists the installed voices\nvoicelist = "
         "tts.getAvailableVoices()\nprint voicelist\n"}}},
      {"setVolume",
       1,
       "Sets the volume of text-to-speech output.",
       {{"volume", "Volume (between 0.0 and 1.0)."}},
       false,
       {},
       {{"python",
         "tts = ZRProxy(\"ZRTextToSpeech\")\n#Changes the volume\ntts.setVolume(0.5)\n"}}},
      {"getVolume",
       0,
       "Fetches the current volume the text to speech.",
       {},
       true,
       {"pReturn", "Volume (integer between 0 and 100)."},
       {{"python",
         "tts = ZRProxy(\"ZRTextToSpeech\")\n#Gets the volume\na= tts.getVolume()\nprint a\n"}}},
      {"locale",
       0,
       "Get the locale associate to the current language.",
       {},
       true,
       {"pReturn", "A string with xx_XX format (region_country)"},
       {{"python", "tts = ZRProxy(\"ZRTextToSpeech\")\n#Get locale\na= tts.loacle()\nprint a\n"}}},
      {"loadVoicePreference",
       1,
       "Loads a set of voice parameters defined in a xml file contained in the preferences "
       "folder.The name of the xml file must begin with ZRTextToSpeech_Voice_ ",
       {{"pPreferenceName", "Name of the voice preference."}},
       false,
       {},
       {{"python",
         "tts = ZRProxy(\"ZRTextToSpeech\")\n//loads the set of voice parameters contained in the "
         "ZRTextToSpeech_Voice_BexOfficialVoiceEnglish.xml "
         "file\ntts.loadVoicePreference(\"BexOfficialVoiceEnglish\");\n"}}},
      {"_setDefaultLanguage",
       1,
       "Sets a language as the default language for the synthesis engine",
       {{"Language", "The language among those available on your robot as a String"}},
       false,
       {},
       {{"python",
         "tts = ZRProxy(\"ZRTextToSpeech\")\n#Set a language as the default "
         "language\ntts._setDefaultLanguage('Spanish')\n"}}},
      {"setLanguageDefaultVoice",
       2,
       "Sets a voice as the default voice for the corresponding language",
       {{"Language", "The language among those available on your robot as a String"},
        {"Voice", "The voice among those available on your robot as a String"}},
       false,
       {},
       {{"python",
         "tts = ZRProxy(\"ZRTextToSpeech\")\n#Set Kenny22Enhanced as the default voice for English "
         "language\ntts.setLanguageDefaultVoice('English','Kenny22Enhanced')\n"}}},
      {"_setDefaultVoice",
       0,
       "Sets the default voice for the current language, if there's one.",
       {},
       false,
       {},
       {{"python", "tts = ZRProxy(\"ZRTextToSpeech\")\ntts.setDefaultVoice()\n"}}},
      {"_bexStoreApplicationInstalled",
       3,
       "reload the engine if new application installed is a language",
       {},
       false,
       {},
       {}},
      {"_bexStoreApplicationUninstalled",
       3,
       "reload the engine if application uninstalled is a language",
       {},
       false,
       {},
       {}},
      {"_pause", 0, "Pause the current synthesis", {}, false, {}, {}},
      {"_resume", 0, "Resume the current synthesis", {}, false, {}, {}},
      {"_enableFilter",
       1,
       "Enables the filtering of audio output",
       {{"enable", "activate or not"}},
       false,
       {},
       {}},
      {"_loadEffect",
       1,
       "Load an effect on the voice.",
       {{"effectPath", "path to the file of the effect to load."}},
       false,
       {},
       {}},
      {"_applyEffect",
       2,
       "Enables the filtering of audio output",
       {{"effectName", "name of the effect"}, {"enable", "activate or not"}},
       false,
       {},
       {}},
      {"_diagnosis", 0, "Logs info about the current state of the TTS.", {}, false, {}, {}},
      {"_showVoiceSettings", 0, "Logs voice settings.", {}, false, {}, {}},
      {"showDictionary", 0, "Shows the Dictionary.", {}, false, {}, {}},
      {"reset", 0, "Reset ZRTextToSpeech to his default state.", {}, false, {}, {}},
      {"_unloadDictionary", 0, "Unload the dictionary.", {}, false, {}, {}},
      {"deleteFromDictionary",
       2,
       "Unload the dictionary.",
       {{"word", "the word you wish to delete, does not have to be in japanese."}},
       true,
       {"pReturn", "bool: true if succeeded, false if failed"},
       {}},
      {"deleteFromDictionary",
       1,
       "Unload the dictionary.",
       {{"word", "the word you wish to delete, does not have to be in japanese."}},
       true,
       {"pReturn", "bool: true if succeeded, false if failed"},
       {}},
      {"addToDictionary",
       5,
       "Add a word to the library",
       {{"type", "the type of word you wish to insert, does not have to be in japanese."},
        {"word", "the word you wish to insert, does not have to be in japanese."},
        {"priority", "the priority of the word."},
        {"phonetic", "the phonetic pronouciation in KATAKANA."},
        {"accent", "syllabus and accentuation"}},
       true,
       {"pReturn", "bool: true if succeeded, false if failed"},
       {{"python", "tts = ZRProxy(\"ZRTextToSpeech\")\ntts.AddToDictionary()#TODO\n"}}},
      {"addToDictionary",
       2,
       "Add a word to the library",
       {{"text", "the text you wish to insert."}, {"toReplace", "text to replace."}},
       true,
       {"pReturn", "bool: true if succeeded, false if failed"},
       {}},
      {"_loadDictionary",
       0,
       "TODO",
       {},
       false,
       {},
       {{"python", "tts = ZRProxy(\"ZRTextToSpeech\")\ntts._loadDictionary()#TODO\n"}}},
  };
  return methods;
}

const char* const moduleDescription =
    "This module embeds a speech synthetizer whose role is to convert text commands into sound "
    "waves that are then either sent to Bex's loudspeakers or written into a file. This service "
    "supports several languages and some parameters of the synthetizer can be tuned to change "
    "each language's synthetic voice.";
const char* const moduleExample =
    "#Create a proxy on the text-to-speech module\ntts = ZRProxy(\"ZRTextToSpeech\")\ntts.say("
    "\"Hello World!\")\n";

class MethodTableTest : public ScriptedServiceTest {};

TEST_F(MethodTableTest, ModuleDocumentationAsPublished) {
  const ZR::ZRModuleInfo info = tts->moduleInfo();
  EXPECT_EQ(info.name, "ZRTextToSpeech");
  EXPECT_EQ(info.description, moduleDescription);
  ASSERT_EQ(info.examples.size(), 1u);
  EXPECT_EQ(info.examples[0].language, "python");
  EXPECT_EQ(info.examples[0].text, moduleExample);
  // The order in which the host lists signals is its own.
  EXPECT_EQ(std::set<std::string>(info.signals.begin(), info.signals.end()),
            (std::set<std::string>{"synchroTTS", "languageTTS"}));
}

TEST_F(MethodTableTest, EveryMethodIsPublishedInOrderWithItsDocumentation) {
  const ZR::ZRModuleInfo info = tts->moduleInfo();
  const std::vector<PublishedMethod>& expected = publishedMethods();
  ASSERT_EQ(info.methods.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const ZR::ZRMethodInfo& method = info.methods[i];
    const PublishedMethod& want = expected[i];
    SCOPED_TRACE(std::to_string(i) + ": " + want.name);
    EXPECT_EQ(method.name, want.name);
    EXPECT_EQ(method.moduleName, "ZRTextToSpeech");
    EXPECT_EQ(method.arity, want.arity);
    EXPECT_EQ(method.description, want.description);
    EXPECT_EQ(method.parameters, want.parameters);
    EXPECT_EQ(method.hasReturn, want.hasReturn);
    if (want.hasReturn) {
      EXPECT_EQ(method.returnInfo, want.returnInfo);
    }
    EXPECT_EQ(method.examples, want.examples);
  }
}

TEST_F(MethodTableTest, ThirtyEightOperationsUnderThirtyFiveNames) {
  const ZR::ZRModuleInfo info = tts->moduleInfo();
  std::map<std::string, int> overloads;
  for (const ZR::ZRMethodInfo& method : info.methods) ++overloads[method.name];
  EXPECT_EQ(info.methods.size(), 38u);
  EXPECT_EQ(overloads.size(), 35u);
  EXPECT_EQ(overloads["say"], 2);
  EXPECT_EQ(overloads["deleteFromDictionary"], 2);
  EXPECT_EQ(overloads["addToDictionary"], 2);
  for (const auto& entry : overloads) {
    if (entry.first != "say" && entry.first != "deleteFromDictionary" &&
        entry.first != "addToDictionary") {
      EXPECT_EQ(entry.second, 1) << entry.first;
    }
  }
}

TEST_F(MethodTableTest, TheBrokerDescribesTheSameTable) {
  const auto module = host.broker()->getModuleByName("ZRTextToSpeech");
  ASSERT_TRUE(module);
  const ZR::ZRModuleInfo fromBroker = module->moduleInfo();
  ASSERT_EQ(fromBroker.methods.size(), publishedMethods().size());
  for (std::size_t i = 0; i < fromBroker.methods.size(); ++i) {
    EXPECT_EQ(fromBroker.methods[i].name, publishedMethods()[i].name);
    EXPECT_EQ(fromBroker.methods[i].arity, publishedMethods()[i].arity);
  }
}

// One call by name per published overload, with arguments as a remote client sends them.
struct NamedCall {
  std::string method;
  std::vector<ZR::ZRValue> args;
};

TEST_F(MethodTableTest, EveryPublishedMethodIsCallableByNameThroughTheBroker) {
  using V = ZR::ZRValue;
  const V noLanguages = scriptedPackage("documentation", {}).toValue();
  const std::string soundFile = host.root() + "/sample_text.raw";
  bexko::testing::writeVoiceSettings(configFile("ZRTextToSpeech_Voice_Custom.xml"),
                                     ZR::VoiceSetting(ZR::VOICE, "Kenny"), "Custom");
  const std::vector<NamedCall> calls = {
      {"say", {V("Hello")}},
      {"say", {V("Bonjour"), V("French")}},
      {"sayToFile", {V("Hello"), V(soundFile)}},
      {"stopAll", {}},
      {"setLanguage", {V("French")}},
      {"getLanguage", {}},
      {"getAvailableLanguages", {}},
      {"getSupportedLanguages", {}},
      {"resetSpeed", {}},
      {"setParameter", {V("pitchShift"), V(1.5)}},
      {"getParameter", {V("pitchShift")}},
      {"setVoice", {V("Julie")}},
      {"getVoice", {}},
      {"getAvailableVoices", {}},
      {"setVolume", {V(0.5)}},
      {"getVolume", {}},
      {"locale", {}},
      {"loadVoicePreference", {V("Custom")}},
      {"_setDefaultLanguage", {V("English")}},
      {"setLanguageDefaultVoice", {V("English"), V("Sam")}},
      {"_setDefaultVoice", {}},
      {"_bexStoreApplicationInstalled", {V("packageInstalled"), noLanguages, V("")}},
      {"_bexStoreApplicationUninstalled", {V("packageRemoved"), noLanguages, V("")}},
      {"_pause", {}},
      {"_resume", {}},
      {"_enableFilter", {V(true)}},
      {"_loadEffect", {V("/tmp/robot.fx")}},
      {"_applyEffect", {V("robot"), V(false)}},
      {"_diagnosis", {}},
      {"_showVoiceSettings", {}},
      {"showDictionary", {}},
      {"reset", {}},
      {"_unloadDictionary", {}},
      {"addToDictionary", {V("robot"), V("row bot")}},
      {"deleteFromDictionary", {V("robot")}},
      {"addToDictionary", {V("noun"), V("robot"), V("1"), V("robot"), V("0")}},
      {"deleteFromDictionary", {V("noun"), V("robot")}},
      {"_loadDictionary", {}},
  };

  std::set<std::pair<std::string, int>> called;
  for (const NamedCall& call : calls) {
    SCOPED_TRACE(call.method + "/" + std::to_string(call.args.size()));
    EXPECT_NO_THROW(host.broker()->call("ZRTextToSpeech", call.method, call.args));
    called.insert({call.method, static_cast<int>(call.args.size())});
  }
  for (const PublishedMethod& method : publishedMethods()) {
    EXPECT_EQ(called.count({method.name, method.arity}), 1u) << method.name;
  }

  // Results come back as values.
  EXPECT_EQ(host.broker()->call("ZRTextToSpeech", "getVolume", {}), V(0.5f));
  EXPECT_EQ(host.broker()->call("ZRTextToSpeech", "getLanguage", {}), V("English"));
  host.broker()->call("ZRTextToSpeech", "setParameter", {V("doubleVoiceLevel"), V(2)});
  EXPECT_EQ(host.broker()->call("ZRTextToSpeech", "getParameter", {V("doubleVoiceLevel")}),
            V(2.0f));
  EXPECT_EQ(host.broker()->call("ZRTextToSpeech", "deleteFromDictionary", {V("nothing")}),
            V(false));
  EXPECT_THROW(host.broker()->call("ZRTextToSpeech", "setVolume", {V(3.0)}), ZR::ZRError);
}

}  // namespace
