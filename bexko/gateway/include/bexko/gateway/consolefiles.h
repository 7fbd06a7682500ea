#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bexko {
namespace gateway {

/// The web console's static files, as the gateway serves them over plain HTTP: only regular
/// files of a known type inside one folder, found from a request target.
///
/// A target is refused (BadPath) when it could name anything outside the folder or anything
/// hidden in it: a "." or ".." segment (also percent-encoded), a segment that begins with a
/// dot, a backslash, a NUL or an empty segment. A file whose real path (symbolic links
/// resolved) leaves the folder is not found, so a link cannot lead out of it either.
class ConsoleFiles {
 public:
  /// What a request target names.
  enum class Outcome { Found, NotFound, BadPath };

  struct Lookup {
    Outcome outcome = Outcome::NotFound;
    /// The file's real path, when found.
    std::string path;
    /// Its MIME type, with the charset for text ("text/javascript; charset=utf-8").
    std::string contentType;
  };

  /// Serves the files of `folder`. An empty or missing folder serves nothing (every lookup is
  /// NotFound); see isServing().
  explicit ConsoleFiles(const std::string& folder);

  /// True when the folder exists, so that plain HTTP requests are answered with its files.
  bool isServing() const { return !root_.empty(); }
  const std::string& folder() const { return root_; }

  /// The file a request target ("/", "/speech.js?v=2") names; "/" and any folder name its
  /// index.html. The query is ignored.
  Lookup find(const std::string& target) const;

  /// Reads a found file whole into `body`. Returns false when it cannot be read or is larger
  /// than `maxBytes`.
  static bool read(const std::string& path, std::string& body, std::uintmax_t maxBytes);

  /// The MIME type served for a file name, empty for a type the console does not serve.
  static std::string contentTypeFor(const std::string& name);

 private:
  std::string root_;  // canonical, empty when not serving
};

/// The Content-Security-Policy of the console's pages served by a gateway reachable at
/// `hosts` ("127.0.0.1:9559", "localhost:9559"): its own scripts, styles and images only, no
/// inline script or style, WebSocket connections to those hosts, no plugins, no framing.
std::string consoleContentSecurityPolicy(const std::vector<std::string>& hosts);

}  // namespace gateway
}  // namespace bexko
