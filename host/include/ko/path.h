#pragma once

#include <string>
#include <vector>

#include <zr/export.h>

namespace ko {
namespace path {

/// Full path of an executable found on PATH (or `name` itself when it is a path to an executable
/// file); empty when not found. The flag is unused and kept for the contract.
BEXKO_API std::string findBin(const std::string& name, bool searchInSdk = false);

/// Full path of `file` in the data folders of `application`: first
/// $XDG_DATA_HOME/<application> (default ~/.local/share), then each folder of $XDG_DATA_DIRS
/// (default /usr/local/share:/usr/share), then <sdkPrefix>/share/<application>. Empty when no
/// such file or folder exists. An empty `file` finds the folder itself.
BEXKO_API std::string findData(const std::string& application, const std::string& file,
                               bool excludeUserWritablePath = false);

/// The same over the configuration folders: $XDG_CONFIG_HOME/<application> (default ~/.config),
/// each folder of $XDG_CONFIG_DIRS (default /etc/xdg), then <sdkPrefix>/etc/<application>.
BEXKO_API std::string findConf(const std::string& application, const std::string& file,
                               bool excludeUserWritablePath = false);

/// Every data folder of `application` in search order, existing or not.
BEXKO_API std::vector<std::string> dataPaths(const std::string& application);
/// Every configuration folder of `application` in search order, existing or not.
BEXKO_API std::vector<std::string> confPaths(const std::string& application);

/// The user's writable data / configuration folder of `application` (the first of the search
/// order), created with its parents when missing. Throws std::runtime_error if it cannot be.
BEXKO_API std::string userWritableDataPath(const std::string& application);
BEXKO_API std::string userWritableConfPath(const std::string& application);

/// Installation prefix of the host: $BEXKO_SDK_PREFIX if set, else the folder above the one
/// holding the running executable (so that a build tree and an installed tree both work).
BEXKO_API std::string sdkPrefix();

}  // namespace path

namespace os {

/// The temporary folder ($TMPDIR or /tmp), without a trailing slash.
BEXKO_API std::string tmp();
/// The user's home folder ($HOME, else the password database), without a trailing slash.
BEXKO_API std::string home();

/// Starts a program from a null-terminated argument vector, looking argv[0] up on PATH when it
/// has no slash. Returns the child's process id, or -1 when it could not be started (the child
/// is then already collected).
BEXKO_API int spawnvp(const char* const argv[]);
BEXKO_API int spawnvp(const std::vector<std::string>& argv);
/// Waits for a child and stores its exit code in `status` (128 + the signal number when it was
/// killed). Returns 0 on success, -1 with errno set otherwise. Retries on EINTR.
BEXKO_API int waitpid(int pid, int* status);
/// Sends `signal` to a process; returns the result of kill(2).
BEXKO_API int kill(int pid, int signal);

}  // namespace os
}  // namespace ko
