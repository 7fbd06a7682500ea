#include <ko/path.h>

#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

extern char** environ;

namespace ko {

namespace {

namespace fs = std::filesystem;

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::string(value) : std::string();
}

std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

/// An XDG base folder: the variable when it holds an absolute path (relative ones are invalid
/// and ignored), else `fallback` below the home folder.
std::string xdgHome(const char* variable, const char* fallback) {
  const std::string value = environment(variable);
  if (!value.empty() && value[0] == '/') return withoutTrailingSlash(value);
  return os::home() + "/" + fallback;
}

std::vector<std::string> xdgDirs(const char* variable, const char* fallback) {
  std::string value = environment(variable);
  if (value.empty()) value = fallback;
  std::vector<std::string> dirs;
  std::size_t start = 0;
  while (start <= value.size()) {
    std::size_t colon = value.find(':', start);
    if (colon == std::string::npos) colon = value.size();
    const std::string dir = value.substr(start, colon - start);
    if (!dir.empty() && dir[0] == '/') dirs.push_back(withoutTrailingSlash(dir));
    start = colon + 1;
  }
  return dirs;
}

void appendUnique(std::vector<std::string>& paths, const std::string& path) {
  for (const auto& existing : paths) {
    if (existing == path) return;
  }
  paths.push_back(path);
}

std::string findIn(const std::vector<std::string>& folders, const std::string& file,
                   bool excludeUserWritablePath) {
  for (std::size_t i = excludeUserWritablePath ? 1 : 0; i < folders.size(); ++i) {
    const std::string candidate = file.empty() ? folders[i] : folders[i] + "/" + file;
    std::error_code ignored;
    if (fs::exists(candidate, ignored)) return candidate;
  }
  return std::string();
}

std::string createFolder(const std::string& path) {
  std::error_code error;
  fs::create_directories(path, error);
  if (error || !fs::is_directory(path)) {
    throw std::runtime_error("cannot create folder " + path + ": " +
                             (error ? error.message() : std::string("not a folder")));
  }
  return path;
}

bool isExecutableFile(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
         ::access(path.c_str(), X_OK) == 0;
}

}  // namespace

namespace path {

std::string findBin(const std::string& name, bool) {
  if (name.empty()) return std::string();
  if (name.find('/') != std::string::npos) {
    return isExecutableFile(name) ? name : std::string();
  }
  std::string searchPath = environment("PATH");
  if (searchPath.empty()) searchPath = "/usr/local/bin:/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= searchPath.size()) {
    std::size_t colon = searchPath.find(':', start);
    if (colon == std::string::npos) colon = searchPath.size();
    std::string dir = searchPath.substr(start, colon - start);
    if (dir.empty()) dir = ".";  // an empty entry means the current folder
    const std::string candidate = withoutTrailingSlash(dir) + "/" + name;
    if (isExecutableFile(candidate)) return candidate;
    start = colon + 1;
  }
  return std::string();
}

std::vector<std::string> dataPaths(const std::string& application) {
  std::vector<std::string> paths;
  appendUnique(paths, xdgHome("XDG_DATA_HOME", ".local/share") + "/" + application);
  for (const auto& dir : xdgDirs("XDG_DATA_DIRS", "/usr/local/share:/usr/share")) {
    appendUnique(paths, dir + "/" + application);
  }
  appendUnique(paths, sdkPrefix() + "/share/" + application);
  return paths;
}

std::vector<std::string> confPaths(const std::string& application) {
  std::vector<std::string> paths;
  appendUnique(paths, xdgHome("XDG_CONFIG_HOME", ".config") + "/" + application);
  for (const auto& dir : xdgDirs("XDG_CONFIG_DIRS", "/etc/xdg")) {
    appendUnique(paths, dir + "/" + application);
  }
  appendUnique(paths, sdkPrefix() + "/etc/" + application);
  return paths;
}

std::string findData(const std::string& application, const std::string& file,
                     bool excludeUserWritablePath) {
  return findIn(dataPaths(application), file, excludeUserWritablePath);
}

std::string findConf(const std::string& application, const std::string& file,
                     bool excludeUserWritablePath) {
  return findIn(confPaths(application), file, excludeUserWritablePath);
}

std::string userWritableDataPath(const std::string& application) {
  return createFolder(dataPaths(application).front());
}

std::string userWritableConfPath(const std::string& application) {
  return createFolder(confPaths(application).front());
}

std::string sdkPrefix() {
  const std::string configured = environment("BEXKO_SDK_PREFIX");
  if (!configured.empty()) return withoutTrailingSlash(configured);
  std::error_code error;
  const fs::path executable = fs::read_symlink("/proc/self/exe", error);
  if (error || executable.empty()) return "/usr";
  fs::path prefix = executable.parent_path().parent_path();
  if (prefix.empty()) prefix = "/";
  return prefix.string();
}

}  // namespace path

namespace os {

std::string tmp() {
  const std::string dir = environment("TMPDIR");
  return withoutTrailingSlash(dir.empty() ? std::string("/tmp") : dir);
}

std::string home() {
  const std::string dir = environment("HOME");
  if (!dir.empty()) return withoutTrailingSlash(dir);
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  struct passwd entry {};
  struct passwd* result = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result &&
      result->pw_dir) {
    return withoutTrailingSlash(result->pw_dir);
  }
  return "/";
}

int spawnvp(const char* const argv[]) {
  if (!argv || !argv[0] || !argv[0][0]) {
    errno = EINVAL;
    return -1;
  }
  // The child starts with every signal unblocked and at its default action, whatever the
  // calling thread blocked or ignored: a daemon that blocks SIGTERM for its signal thread must
  // still be able to stop its children with it.
  posix_spawnattr_t attributes;
  if (posix_spawnattr_init(&attributes) != 0) return -1;
  sigset_t noSignals;
  sigemptyset(&noSignals);
  sigset_t defaultSignals;
  sigfillset(&defaultSignals);
  sigdelset(&defaultSignals, SIGKILL);
  sigdelset(&defaultSignals, SIGSTOP);
  posix_spawnattr_setsigmask(&attributes, &noSignals);
  posix_spawnattr_setsigdefault(&attributes, &defaultSignals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  pid_t pid = -1;
  // glibc reports a failed exec as the result of posix_spawnp and has then already collected
  // the child, so a program that cannot start leaves no zombie behind.
  const int result =
      ::posix_spawnp(&pid, argv[0], nullptr, &attributes, const_cast<char* const*>(argv), environ);
  posix_spawnattr_destroy(&attributes);
  if (result != 0) {
    errno = result;
    return -1;
  }
  return static_cast<int>(pid);
}

int spawnvp(const std::vector<std::string>& argv) {
  std::vector<const char*> pointers;
  pointers.reserve(argv.size() + 1);
  for (const auto& argument : argv) pointers.push_back(argument.c_str());
  pointers.push_back(nullptr);
  return spawnvp(pointers.data());
}

int waitpid(int pid, int* status) {
  int raw = 0;
  pid_t result;
  do {
    result = ::waitpid(static_cast<pid_t>(pid), &raw, 0);
  } while (result == -1 && errno == EINTR);
  if (result == -1) return -1;
  if (status) {
    if (WIFEXITED(raw)) {
      *status = WEXITSTATUS(raw);
    } else if (WIFSIGNALED(raw)) {
      *status = 128 + WTERMSIG(raw);
    } else {
      *status = raw;
    }
  }
  return 0;
}

int kill(int pid, int signal) { return ::kill(static_cast<pid_t>(pid), signal); }

}  // namespace os
}  // namespace ko
