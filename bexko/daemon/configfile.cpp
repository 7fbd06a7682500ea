#include "configfile.h"

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <ko/path.h>

namespace bexko {
namespace daemon {

std::string defaultConfigFile() { return ko::path::confPaths("bexko").front() + "/bexko.conf"; }

// Reads the file as CLI11 does, then checks every key against the options of the application
// and leaves out those whose environment variable is set, so that the environment wins.
class ConfigFile::Reader : public CLI::ConfigTOML {
 public:
  explicit Reader(CLI::App& app) : app(app) {}

  std::vector<CLI::ConfigItem> from_config(std::istream& input) const override {
    // --help and --version answer whatever the file holds.
    const CLI::Option* version = app.get_option_no_throw("--version");
    if (app.get_help_ptr()->count() > 0 || (version && version->count() > 0)) return {};
    const std::string file = app.get_config_ptr()->as<std::string>();
    std::vector<CLI::ConfigItem> read = CLI::ConfigTOML::from_config(input);
    std::vector<CLI::ConfigItem> kept;
    for (const CLI::ConfigItem& item : read) {
      const std::string key = item.fullname();
      if (!item.parents.empty()) {
        throw CLI::ConfigError(file + ": [" + CLI::detail::join(item.parents, ".") +
                               "]: sections are not used, write every key at the top level");
      }
      const CLI::Option* option = findOption(item.name);
      if (!option) {
        throw CLI::ConfigError(file + ": unknown key \"" + key +
                               "\" (the keys are the long options of bexko --help without "
                               "their dashes)");
      }
      if (!option->get_configurable()) {
        throw CLI::ConfigError(file + ": \"" + key + "\" cannot be set in a configuration file");
      }
      const std::string variable = option->get_envname();
      const char* value = variable.empty() ? nullptr : std::getenv(variable.c_str());
      if (value && *value) continue;
      supplied.insert(item.name);
      kept.push_back(item);
    }
    return kept;
  }

  mutable std::set<std::string> supplied;

 private:
  const CLI::Option* findOption(const std::string& name) const {
    if (name.empty() || name == "help" || name == "version") return nullptr;
    if (const CLI::Option* option = app.get_option_no_throw("--" + name)) return option;
    // Positionals (the module libraries) go by their name alone.
    const CLI::Option* option = app.get_option_no_throw(name);
    return option && option->get_positional() ? option : nullptr;
  }

  CLI::App& app;
};

ConfigFile::ConfigFile(CLI::App& app) : app(app), reader(std::make_shared<Reader>(app)) {
  app.set_config("--config", defaultConfigFile(),
                 "Read options from this file (one \"key = value\" line per long option, "
                 "e.g. audio-output = \"auto\"); the command line and the environment win over "
                 "it. The default file may be missing; a file given here must exist");
  app.config_formatter(reader);
  app.allow_config_extras(CLI::config_extras_mode::error);
}

std::string ConfigFile::path() const { return app.get_config_ptr()->as<std::string>(); }

const std::set<std::string>& ConfigFile::suppliedKeys() const { return reader->supplied; }

}  // namespace daemon
}  // namespace bexko
