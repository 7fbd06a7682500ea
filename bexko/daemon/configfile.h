#pragma once

#include <set>
#include <string>

#include <CLI/CLI.hpp>

namespace bexko {
namespace daemon {

/// The daemon's configuration file: $XDG_CONFIG_HOME/bexko/bexko.conf (~/.config/bexko/...).
std::string defaultConfigFile();

/// Reads the daemon's options from a configuration file as well: one `key = value` line per
/// option, the key being the long option without its dashes (`listen = "127.0.0.1:9560"`,
/// `no-auth = true`, `libraries = ["/path/a.so", "/path/b.so"]`), `#` starting a comment.
/// The command line wins over the environment (the options' variables, e.g. BEXKO_LOG_LEVEL),
/// which wins over the file. A key that is no option of `app`, a section or a key that cannot
/// be configured makes parsing fail with CLI::ConfigError naming the file and the key; a bad
/// value fails as it would on the command line. Adds the option --config FILE, whose file must
/// exist when it is given; the default file may be missing.
class ConfigFile {
 public:
  explicit ConfigFile(CLI::App& app);
  ConfigFile(const ConfigFile&) = delete;
  ConfigFile& operator=(const ConfigFile&) = delete;

  /// The file read (or to be read).
  std::string path() const;
  /// The keys whose values came from the file, once the command line has been parsed.
  const std::set<std::string>& suppliedKeys() const;

 private:
  class Reader;
  CLI::App& app;
  std::shared_ptr<Reader> reader;
};

}  // namespace daemon
}  // namespace bexko
