// bexko: the desktop host. Creates the broker and its built-in services, loads module libraries,
// serves clients through the gateway and shuts everything down on SIGINT or SIGTERM.
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <boost/shared_ptr.hpp>

#include <bexko/audiooutput/makeaudiooutput.h>
#include <bexko/gateway/gateway.h>
#include <bexko/services/builtinservices.h>
#include <ko/audiooutput.h>
#include <ko/log.h>
#include <ko/path.h>
#include <ko/version.h>
#include <zr/zrbroker.h>
#include <zr/zrbrokermanager.h>
#include "accesstoken.h"
#include "configfile.h"
#include "firstrun.h"
#include "modulelibraries.h"

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.daemon");
  return category;
}

using CreateModuleFunction = int (*)(boost::shared_ptr<ZR::ZRBroker>);

/// Loads one module library and enters it. The library stays loaded for the life of the
/// process: its modules' code must outlive every reference the host may still hold.
bool loadModuleLibrary(const std::string& path, const boost::shared_ptr<ZR::ZRBroker>& broker) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    KO_LOG(logCategory(), ko::log::error, "loadModuleLibrary")
        << "cannot load " << path << ": " << dlerror();
    return false;
  }
  auto create = reinterpret_cast<CreateModuleFunction>(dlsym(handle, "_createModule"));
  if (!create) {
    KO_LOG(logCategory(), ko::log::error, "loadModuleLibrary")
        << path << " has no _createModule entry point";
    return false;
  }
  try {
    const int status = create(broker);
    KO_LOG(logCategory(), ko::log::info, "loadModuleLibrary")
        << "loaded " << path << " (_createModule returned " << status << ")";
  } catch (const std::exception& e) {
    KO_LOG(logCategory(), ko::log::error, "loadModuleLibrary")
        << "_createModule of " << path << " failed: " << e.what();
    return false;
  } catch (...) {
    KO_LOG(logCategory(), ko::log::error, "loadModuleLibrary")
        << "_createModule of " << path << " failed with an exception of unknown type";
    return false;
  }
  return true;
}

/// Splits "ADDRESS:PORT"; IPv6 addresses come in brackets ("[::1]:9559").
bool parseListen(const std::string& text, std::string& address, unsigned short& port) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) return false;
  address = text.substr(0, colon);
  if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
    address = address.substr(1, address.size() - 2);
  }
  const std::string portText = text.substr(colon + 1);
  if (portText.find_first_not_of("0123456789") != std::string::npos || portText.size() > 5) {
    return false;
  }
  const unsigned long value = std::stoul(portText);
  if (value > 65535) return false;
  port = static_cast<unsigned short>(value);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  // Every thread the host starts inherits this mask, so that the two stop signals reach only
  // the sigwait below and shutdown runs on the main thread, where nothing else is going on.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  CLI::App app{
      "bexko: the desktop host. It runs the built-in services (ZRMemory, ZRPreferences,\n"
      "ZRPreferenceManager, PackageManager), the modules of the libraries given on the\n"
      "command line and those of the module folders (<prefix>/lib/bexko/modules,\n"
      "$XDG_DATA_HOME/bexko/modules), and serves them to clients as JSON-RPC 2.0 over a\n"
      "WebSocket. Once ready it prints one line \"listening on ws://ADDRESS:PORT\" on standard\n"
      "output. SIGINT or SIGTERM stops every module and the gateway, and the host exits with\n"
      "status 0.\n"
      "Files live under $XDG_CONFIG_HOME/bexko (preferences, voice files) and\n"
      "$XDG_DATA_HOME/bexko (preference database, packages, dictionary); options may also\n"
      "come from $XDG_CONFIG_HOME/bexko/bexko.conf (see --config).\n"
      "Speech is heard only with an audio output (--audio-output): by default the modules\n"
      "synthesise and pace their speech but play no sound.",
      "bexko"};

  const std::string defaultLibrary = ko::path::sdkPrefix() + "/lib/libbexko-tts.so";
  std::vector<std::string> libraries;
  std::string listen = "127.0.0.1:9559";
  std::string token;
  bool noAuth = false;
  std::string logLevel;
  std::string logFile;
  bool noModules = false;
  bool noDefaultLanguage = false;
  std::string audioOutputName = "none";
  std::size_t maxMessageBytes = 1024 * 1024;
  const bexko::gateway::GatewayOptions gatewayDefaults;
  std::size_t maxConnections = gatewayDefaults.maxConnections;
  std::size_t maxConnectionsPerAddress = gatewayDefaults.maxConnectionsPerAddress;
  std::size_t maxUnreadBytes = gatewayDefaults.maxQueuedBytes;
  int idleTimeoutSeconds = static_cast<int>(gatewayDefaults.idleTimeout.count());

  app.add_option("libraries", libraries,
                 "Module libraries to load with dlopen and enter through _createModule, in "
                 "order (default: " +
                     defaultLibrary + ", the speech and audio modules)");
  app.add_flag("--no-modules", noModules,
               "Load no module library, neither the default one nor those of the module "
               "folders: serve the built-in services alone");
  app.add_flag("--no-default-language", noDefaultLanguage,
               "Do not set the preference \"ChosenLanguage\" (domain "
               "\"com.veltra.robotwebpage\") when it is missing. By default a first run sets it "
               "to the language of the desktop's locale (LC_ALL, LC_MESSAGES, LANG) when a "
               "package provides it, else to English");
  app.add_option("--listen", listen,
                 "Address and port of the gateway, ADDRESS:PORT (IPv6 in brackets); port 0 "
                 "picks a free port. An address other than loopback needs --token")
      ->capture_default_str();
  app.add_option("--token", token,
                 "Access token that every client must present (ws://HOST:PORT/?token=TOKEN or "
                 "\"Authorization: Bearer TOKEN\"); also read from BEXKO_TOKEN. Without it, "
                 "bexko makes a random one at every start. Either way it is written to "
                 "$XDG_RUNTIME_DIR/bexko/token (or /tmp/bexko-UID/token when that variable is "
                 "unset; folder 0700, file 0600), where the clients of this account find it")
      ->envname("BEXKO_TOKEN");
  app.add_flag("--no-auth", noAuth,
               "Require no token (loopback only): any local account may then call every "
               "method as the user running bexko. For a trusted machine");
  app.add_option(
         "--log-level", logLevel,
         "Log levels per category: comma-separated GLOB=LEVEL rules, the most specific "
         "matching rule winning, a bare LEVEL meaning *=LEVEL; levels silent, fatal, error, "
         "warning, info, verbose, debug or 0-6 (example: \"audio.*=verbose,*=info\"); "
         "also read from BEXKO_LOG_LEVEL. Default: info")
      ->envname("BEXKO_LOG_LEVEL");
  app.add_option("--log-file", logFile, "Also append every log record to this file");
  app.add_option("--audio-output", audioOutputName,
                 "Where the modules' speech is played: none (no sound, and sayToFile writes no "
                 "samples), clock (silent, but consumed at the audio rate "
                 "like a sound card, for headless machines and tests), pulse (the sound server "
                 "of the desktop through libpulse, on its default sink, or PULSE_SINK; the "
                 "server is found as libpulse does, e.g. PULSE_SERVER; when none answers bexko "
                 "exits with status 1) or auto (pulse when a sound server answers, else clock); "
                 "also read from BEXKO_AUDIO_OUTPUT")
      ->envname("BEXKO_AUDIO_OUTPUT")
      ->capture_default_str();
  app.add_option("--max-message-bytes", maxMessageBytes,
                 "Largest request frame accepted; a client sending a bigger one is "
                 "disconnected with WebSocket status 1009")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t(1024), std::size_t(64) * 1024 * 1024));
  app.add_option("--max-connections", maxConnections,
                 "Open connections in all; one beyond is closed as soon as it is accepted")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t(1), std::size_t(4096)));
  app.add_option("--max-connections-per-address", maxConnectionsPerAddress,
                 "Open connections from one address")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t(1), std::size_t(4096)));
  app.add_option("--max-unread-bytes", maxUnreadBytes,
                 "Answers and events waiting for a client that does not read, in bytes; "
                 "beyond it the client is disconnected (WebSocket status 1008)")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t(64) * 1024, std::size_t(1024) * 1024 * 1024));
  app.add_option("--idle-timeout", idleTimeoutSeconds,
                 "Seconds of silence after which a WebSocket client is closed; it is pinged at "
                 "half that time, so a client that answers pings stays (0: never)")
      ->capture_default_str()
      ->check(CLI::Range(0, 86400));

  app.set_version_flag("--version", std::string("bexko ") + ko::kVersion,
                       "Print the version and exit");
  const bexko::daemon::ConfigFile configFile(app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(e);
    std::cerr << "bexko: " << e.what() << "\n";
    // CLI11 names the option, not where its value came from.
    const std::string message = e.what();
    for (const auto& key : configFile.suppliedKeys()) {
      const auto at = message.find("--" + key);
      const auto end = at + 2 + key.size();
      if (at != std::string::npos && (end == message.size() || message[end] == ':' ||
                                      message[end] == ' ' || message[end] == '=')) {
        std::cerr << "bexko: \"" << key << "\" is set in " << configFile.path() << "\n";
      }
    }
    std::cerr << "Run with --help for more information.\n";
    return 2;
  }

  std::string address;
  unsigned short port = 0;
  if (!parseListen(listen, address, port)) {
    std::cerr << "bexko: --listen wants ADDRESS:PORT, not \"" << listen << "\"\n";
    return 2;
  }
  const auto outputNames = bexko::audiooutput::audioOutputNames();
  if (std::find(outputNames.begin(), outputNames.end(), audioOutputName) == outputNames.end()) {
    std::cerr << "bexko: --audio-output wants none, clock, pulse or auto, not \"" << audioOutputName
              << "\"\n";
    return 2;
  }
  try {
    if (!logLevel.empty()) ko::log::setLevels(logLevel);
  } catch (const std::exception& e) {
    std::cerr << "bexko: bad --log-level \"" << logLevel << "\": " << e.what() << "\n";
    return 2;
  }
  ko::log::addSink(std::make_shared<ko::log::ConsoleSink>());
  if (!logFile.empty()) {
    try {
      ko::log::addSink(std::make_shared<ko::log::FileSink>(logFile));
    } catch (const std::exception& e) {
      std::cerr << "bexko: cannot open the log file: " << e.what() << "\n";
      return 2;
    }
  }
  if (libraries.empty() && !noModules) libraries.push_back(defaultLibrary);

  // The modules read the output when they start, so it is chosen before any is loaded.
  std::shared_ptr<ko::AudioOutput> audioOutput;
  try {
    audioOutput = bexko::audiooutput::makeAudioOutput(audioOutputName);
  } catch (const std::exception& e) {
    KO_LOG(logCategory(), ko::log::fatal, "main")
        << "cannot open the audio output \"" << audioOutputName << "\": " << e.what();
    std::cerr << "bexko: cannot open the audio output \"" << audioOutputName << "\": " << e.what()
              << "\n";
    return 1;
  }
  KO_LOG(logCategory(), ko::log::info, "main")
      << "audio output: "
      << (audioOutput ? audioOutput->name() : std::string("none (no sound is played)"));
  ko::setAudioOutput(audioOutput);
  // On every way out, error or not, the output closes before static destruction begins.
  struct AudioOutputRelease {
    ~AudioOutputRelease() { ko::setAudioOutput(nullptr); }
  } audioOutputRelease;

  boost::shared_ptr<ZR::ZRBrokerManager> manager(new ZR::ZRBrokerManager());
  ZR::ZRBrokerManager::setInstance(manager);
  boost::shared_ptr<ZR::ZRBroker> broker = ZR::ZRBroker::create("bexko", manager);
  manager->addBroker(broker);

  try {
    bexko::services::createBuiltinServices(broker);
  } catch (const std::exception& e) {
    KO_LOG(logCategory(), ko::log::fatal, "main")
        << "cannot start the built-in services: " << e.what();
    broker->shutdown();
    return 1;
  }
  // The speech service reads the chosen language when it starts.
  if (!noDefaultLanguage) bexko::daemon::ensureChosenLanguage(broker);
  for (const auto& library : libraries) {
    if (!loadModuleLibrary(library, broker)) {
      broker->shutdown();
      return 1;
    }
  }
  // Libraries that someone dropped in a module folder: a broken one is left out, not fatal.
  if (!noModules) {
    for (const auto& library :
         bexko::daemon::folderModuleLibraries(bexko::daemon::moduleFolders(), libraries)) {
      if (!loadModuleLibrary(library, broker)) {
        KO_LOG(logCategory(), ko::log::error, "main")
            << "module library " << library << " left out; the daemon goes on without it";
      }
    }
  }

  // Access: a token on every connection, made here unless given, and left where this account's
  // clients look for it.
  if (noAuth && !token.empty()) {
    std::cerr << "bexko: --no-auth and --token exclude each other\n";
    broker->shutdown();
    return 2;
  }
  const std::string tokenFolder = bexko::daemon::tokenFolder();
  if (!noAuth) {
    if (token.empty()) token = bexko::daemon::generateToken();
    try {
      bexko::daemon::writeTokenFile(tokenFolder, token);
    } catch (const std::exception& e) {
      KO_LOG(logCategory(), ko::log::fatal, "main")
          << "cannot write the access token: " << e.what();
      std::cerr << "bexko: cannot write the access token: " << e.what() << "\n";
      broker->shutdown();
      return 1;
    }
  }
  struct TokenFileRemoval {
    const std::string& folder;
    const std::string& token;
    ~TokenFileRemoval() {
      if (!token.empty()) bexko::daemon::removeTokenFile(folder, token);
    }
  } tokenFileRemoval{tokenFolder, token};
  if (geteuid() == 0) {
    KO_LOG(logCategory(), ko::log::warning, "main")
        << "running as root: whoever holds the access token can act as root through sayToFile "
           "and the package manager";
  }

  bexko::gateway::GatewayOptions options;
  options.address = address;
  options.port = port;
  options.token = token;
  options.maxMessageBytes = maxMessageBytes;
  options.maxConnections = maxConnections;
  options.maxConnectionsPerAddress = maxConnectionsPerAddress;
  options.maxQueuedBytes = maxUnreadBytes;
  options.idleTimeout = std::chrono::seconds(idleTimeoutSeconds);
  // The web console's files, installed beside the daemon (share/bexko/console).
  options.consoleFolder = ko::path::sdkPrefix() + "/share/bexko/console";
  bexko::gateway::Gateway gateway(broker, options);
  try {
    gateway.start();
  } catch (const std::exception& e) {
    KO_LOG(logCategory(), ko::log::fatal, "main") << e.what();
    std::cerr << "bexko: " << e.what() << "\n";
    broker->shutdown();
    return 1;
  }
  if (!token.empty()) {
    KO_LOG(logCategory(), ko::log::info, "main")
        << "clients of this account find the token in " << tokenFolder
        << "/token; with it: " << gateway.url() << "/?token=" << token;
  } else {
    KO_LOG(logCategory(), ko::log::warning, "main")
        << "--no-auth: every local account may call every method as this user";
  }
  if (!gateway.consoleUrl().empty()) {
    // The token rides in the fragment, which a browser never sends to a server.
    KO_LOG(logCategory(), ko::log::info, "main")
        << "web console: " << gateway.consoleUrl() << (token.empty() ? "" : "#token=" + token);
  }
  std::cout << "listening on " << gateway.url() << std::endl;

  int received = 0;
  sigwait(&stopSignals, &received);
  KO_LOG(logCategory(), ko::log::info, "main")
      << "received " << (received == SIGINT ? "SIGINT" : "SIGTERM") << ", stopping";

  gateway.stop();
  broker->shutdown();
  manager->removeBroker(broker);
  ZR::ZRBrokerManager::setInstance({});
  // Only once every module has exited: until then one may still be writing to the output.
  ko::setAudioOutput(nullptr);
  audioOutput.reset();
  KO_LOG(logCategory(), ko::log::info, "main") << "stopped";
  return 0;
}
