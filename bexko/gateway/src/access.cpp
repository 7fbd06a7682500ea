#include <bexko/gateway/access.h>

#include <algorithm>
#include <cctype>
#include <regex>

#include <boost/asio/ip/address.hpp>

namespace bexko {
namespace gateway {

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string percentDecode(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int high = hexDigit(text[i + 1]);
      const int low = hexDigit(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i] == '+' ? ' ' : text[i]);
  }
  return out;
}

}  // namespace

bool isLoopbackAddress(const std::string& address) {
  if (address == "localhost") return true;
  boost::system::error_code ec;
  const auto parsed = boost::asio::ip::make_address(address, ec);
  return !ec && parsed.is_loopback();
}

bool isAllowedOrigin(const std::string& origin) {
  static const std::regex allowed(R"(^https?://(localhost|127\.0\.0\.1|\[::1\])(:[0-9]{1,5})?/?$)",
                                  std::regex::icase);
  return std::regex_match(origin, allowed);
}

std::vector<std::string> consoleOrigins(const std::string& address, unsigned short port) {
  const std::string suffix = ":" + std::to_string(port);
  if (address == "localhost") return {"http://localhost" + suffix, "http://127.0.0.1" + suffix};
  boost::system::error_code ec;
  const auto parsed = boost::asio::ip::make_address(address, ec);
  if (ec || parsed.is_unspecified()) return {};
  const std::string host = parsed.is_v6() ? "[" + parsed.to_string() + "]" : parsed.to_string();
  std::vector<std::string> origins{"http://" + host + suffix};
  if (parsed.is_loopback()) origins.push_back("http://localhost" + suffix);
  return origins;
}

bool isOneOfOrigins(const std::string& origin, const std::vector<std::string>& origins) {
  std::string given = origin;
  if (!given.empty() && given.back() == '/') given.pop_back();
  std::transform(given.begin(), given.end(), given.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return std::find(origins.begin(), origins.end(), given) != origins.end();
}

std::string presentedToken(const std::string& target, const std::string& authorization) {
  const auto query = target.find('?');
  if (query != std::string::npos) {
    std::size_t pos = query + 1;
    while (pos <= target.size()) {
      std::size_t end = target.find('&', pos);
      if (end == std::string::npos) end = target.size();
      const std::string pair = target.substr(pos, end - pos);
      if (pair.compare(0, 6, "token=") == 0) return percentDecode(pair.substr(6));
      pos = end + 1;
    }
  }
  static const std::string bearer = "bearer ";
  if (authorization.size() > bearer.size()) {
    std::string scheme = authorization.substr(0, bearer.size());
    std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (scheme == bearer) {
      std::string token = authorization.substr(bearer.size());
      token.erase(0, token.find_first_not_of(' '));
      token.erase(token.find_last_not_of(' ') + 1);
      return token;
    }
  }
  return {};
}

bool tokensMatch(const std::string& expected, const std::string& presented) {
  if (expected.empty() || presented.size() != expected.size()) return false;
  unsigned char difference = 0;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    difference |= static_cast<unsigned char>(expected[i] ^ presented[i]);
  }
  return difference == 0;
}

}  // namespace gateway
}  // namespace bexko
