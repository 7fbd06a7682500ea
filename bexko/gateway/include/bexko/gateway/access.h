#pragma once

#include <string>

namespace bexko {
namespace gateway {

/// True for an address that only this machine can reach: 127.0.0.0/8, ::1 and "localhost".
/// An unparsable address is not loopback.
bool isLoopbackAddress(const std::string& address);

/// True when a browser's Origin header names this machine: http or https, host "localhost",
/// "127.0.0.1" or "[::1]", with an optional port. A page served from anywhere else must not
/// drive the robot through the visitor's browser.
bool isAllowedOrigin(const std::string& origin);

/// The access token a connection presents: the `token` parameter of the request target's query
/// ("/?token=abc"), else the credentials of an "Authorization: Bearer abc" header; empty when
/// neither is there. Percent-escapes of the query are decoded.
std::string presentedToken(const std::string& target, const std::string& authorization);

/// Compares two tokens in a time that does not depend on where they first differ.
bool tokensMatch(const std::string& expected, const std::string& presented);

}  // namespace gateway
}  // namespace bexko
