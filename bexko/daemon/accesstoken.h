#pragma once

#include <string>

namespace bexko {
namespace daemon {

/// A new access token: 32 random bytes from the system's generator, as 64 hexadecimal digits.
std::string generateToken();

/// Where the daemon leaves its token for the clients of the same account:
/// $XDG_RUNTIME_DIR/bexko, or /tmp/bexko-UID when that variable is unset or not absolute.
std::string tokenFolder();

/// Writes `token` to `<folder>/token`: the folder is created with mode 0700 (an existing one
/// must be a real folder owned by this account, and is set to 0700), the file with mode 0600,
/// written beside and renamed into place. Throws std::runtime_error with the reason.
void writeTokenFile(const std::string& folder, const std::string& token);

/// Removes `<folder>/token` if it still holds `token` (another daemon may have replaced it).
void removeTokenFile(const std::string& folder, const std::string& token);

}  // namespace daemon
}  // namespace bexko
