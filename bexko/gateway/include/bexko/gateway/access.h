#pragma once

#include <string>
#include <vector>

namespace bexko {
namespace gateway {

/// True for an address that only this machine can reach: 127.0.0.0/8, ::1 and "localhost".
/// An unparsable address is not loopback.
bool isLoopbackAddress(const std::string& address);

/// True when a browser's Origin header names this machine: http or https, host "localhost",
/// "127.0.0.1" or "[::1]", with an optional port. A page served from anywhere else must not
/// drive the robot through the visitor's browser.
bool isAllowedOrigin(const std::string& origin);

/// The origins of the console that a gateway bound to `address` and `port` serves:
/// "http://ADDRESS:PORT" (IPv6 in brackets), and also "http://localhost:PORT" when the
/// address is loopback. An address that every interface answers (0.0.0.0, ::) has no origin of
/// its own: pages reached through it are admitted by isAllowedOrigin alone.
std::vector<std::string> consoleOrigins(const std::string& address, unsigned short port);

/// True when a browser's Origin header is one of `origins` (compared without regard to case,
/// a trailing slash ignored).
bool isOneOfOrigins(const std::string& origin, const std::vector<std::string>& origins);

/// The access token a connection presents: the `token` parameter of the request target's query
/// ("/?token=abc"), else the credentials of an "Authorization: Bearer abc" header; empty when
/// neither is there. Percent-escapes of the query are decoded.
std::string presentedToken(const std::string& target, const std::string& authorization);

/// Compares two tokens in a time that does not depend on where they first differ.
bool tokensMatch(const std::string& expected, const std::string& presented);

}  // namespace gateway
}  // namespace bexko
