#include <bexko/gateway/consolefiles.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace bexko {
namespace gateway {

namespace fs = std::filesystem;

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/// The path with its percent-escapes decoded; false for a malformed escape.
bool decodePath(const std::string& text, std::string& out) {
  out.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    if (i + 2 >= text.size()) return false;
    const int high = hexValue(text[i + 1]);
    const int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) return false;
    out.push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  return true;
}

bool isInside(const fs::path& root, const fs::path& path) {
  auto r = root.begin();
  auto p = path.begin();
  for (; r != root.end(); ++r, ++p) {
    if (p == path.end() || *p != *r) return false;
  }
  return true;
}

}  // namespace

ConsoleFiles::ConsoleFiles(const std::string& folder) {
  if (folder.empty()) return;
  std::error_code ec;
  const fs::path root = fs::canonical(folder, ec);
  if (!ec && fs::is_directory(root, ec)) root_ = root.string();
}

ConsoleFiles::Lookup ConsoleFiles::find(const std::string& target) const {
  Lookup lookup;
  std::string raw = target.substr(0, target.find_first_of("?#"));
  std::string path;
  if (raw.empty() || raw.front() != '/' || !decodePath(raw, path)) {
    lookup.outcome = Outcome::BadPath;
    return lookup;
  }
  // Every segment between slashes must be a plain name: no ".", "..", hidden name, empty
  // segment (which "//" would make), backslash or control byte.
  std::string relative = path.substr(1);
  std::size_t start = 0;
  while (start < relative.size()) {
    std::size_t slash = relative.find('/', start);
    if (slash == std::string::npos) slash = relative.size();
    const std::string segment = relative.substr(start, slash - start);
    const bool last = slash == relative.size();
    if ((segment.empty() && !last) || (!segment.empty() && segment.front() == '.')) {
      lookup.outcome = Outcome::BadPath;
      return lookup;
    }
    for (char c : segment) {
      if (static_cast<unsigned char>(c) < 0x20 || c == '\\' || c == 0x7f) {
        lookup.outcome = Outcome::BadPath;
        return lookup;
      }
    }
    start = slash + 1;
  }
  if (!isServing()) return lookup;

  std::error_code ec;
  fs::path candidate = fs::path(root_) / relative;
  if (relative.empty() || relative.back() == '/' || fs::is_directory(candidate, ec)) {
    candidate /= "index.html";
  }
  const fs::path real = fs::canonical(candidate, ec);
  if (ec || !isInside(fs::path(root_), real) || !fs::is_regular_file(real, ec)) return lookup;
  const std::string type = contentTypeFor(real.filename().string());
  if (type.empty()) return lookup;
  lookup.outcome = Outcome::Found;
  lookup.path = real.string();
  lookup.contentType = type;
  return lookup;
}

bool ConsoleFiles::read(const std::string& path, std::string& body, std::uintmax_t maxBytes) {
  std::error_code ec;
  const std::uintmax_t size = fs::file_size(path, ec);
  if (ec || size > maxBytes) return false;
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  body.assign(static_cast<std::size_t>(size), '\0');
  in.read(body.data(), static_cast<std::streamsize>(size));
  body.resize(static_cast<std::size_t>(in.gcount()));
  return !in.bad();
}

std::string ConsoleFiles::contentTypeFor(const std::string& name) {
  const auto dot = name.rfind('.');
  if (dot == std::string::npos) return {};
  std::string extension = name.substr(dot + 1);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  static const std::pair<const char*, const char*> types[] = {
      {"html", "text/html; charset=utf-8"},
      {"css", "text/css; charset=utf-8"},
      {"js", "text/javascript; charset=utf-8"},
      {"mjs", "text/javascript; charset=utf-8"},
      {"json", "application/json"},
      {"svg", "image/svg+xml"},
      {"png", "image/png"},
      {"ico", "image/x-icon"},
      {"txt", "text/plain; charset=utf-8"},
  };
  for (const auto& entry : types) {
    if (extension == entry.first) return entry.second;
  }
  return {};
}

std::string consoleContentSecurityPolicy(const std::vector<std::string>& hosts) {
  std::string connect = "connect-src 'self'";
  for (const auto& host : hosts) connect += " ws://" + host;
  return "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; " + connect +
         "; base-uri 'none'; form-action 'none'; object-src 'none'; frame-ancestors 'none'";
}

}  // namespace gateway
}  // namespace bexko
