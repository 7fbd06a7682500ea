#include "accesstoken.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace bexko {
namespace daemon {

namespace {

std::runtime_error failure(const std::string& what, const std::string& path) {
  return std::runtime_error(what + " " + path + ": " + std::strerror(errno));
}

}  // namespace

std::string generateToken() {
  std::random_device device;  // the kernel's generator
  static const char digits[] = "0123456789abcdef";
  std::string token;
  for (int i = 0; i < 8; ++i) {
    const unsigned int word = device();
    for (int shift = 0; shift < 32; shift += 8) {
      const unsigned int byte = (word >> shift) & 0xFF;
      token += digits[byte >> 4];
      token += digits[byte & 0xF];
    }
  }
  return token;
}

std::string tokenFolder() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime && runtime[0] == '/') return std::string(runtime) + "/bexko";
  return "/tmp/bexko-" + std::to_string(geteuid());
}

void writeTokenFile(const std::string& folder, const std::string& token) {
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    throw failure("cannot create", folder);
  }
  struct stat info;
  if (lstat(folder.c_str(), &info) != 0) throw failure("cannot inspect", folder);
  // In a shared folder such as /tmp, another account could have made it first, or a link.
  if (!S_ISDIR(info.st_mode) || info.st_uid != geteuid()) {
    throw std::runtime_error(folder + " is not a folder of this account");
  }
  if ((info.st_mode & 0777) != 0700 && chmod(folder.c_str(), 0700) != 0) {
    throw failure("cannot restrict", folder);
  }
  std::string temporary = folder + "/token.tmp-XXXXXX";
  const int fd = mkstemp(&temporary[0]);  // mode 0600
  if (fd < 0) throw failure("cannot create a file in", folder);
  const std::string text = token + "\n";
  const bool written =
      ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(fd) == 0;
  close(fd);
  if (!written || rename(temporary.c_str(), (folder + "/token").c_str()) != 0) {
    const std::runtime_error error = failure("cannot write", folder + "/token");
    unlink(temporary.c_str());
    throw error;
  }
}

void removeTokenFile(const std::string& folder, const std::string& token) {
  const std::string path = folder + "/token";
  std::ifstream file(path);
  std::string held;
  if (file >> held && held == token) unlink(path.c_str());
}

}  // namespace daemon
}  // namespace bexko
