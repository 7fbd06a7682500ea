#pragma once

#include <cstdlib>
#include <map>
#include <optional>
#include <string>

namespace bexko::test {

/// Sets or unsets environment variables for one test and restores them afterwards.
class EnvGuard {
 public:
  EnvGuard() = default;
  EnvGuard(const EnvGuard&) = delete;
  EnvGuard& operator=(const EnvGuard&) = delete;
  ~EnvGuard() {
    for (const auto& saved : saved_) {
      if (saved.second) {
        setenv(saved.first.c_str(), saved.second->c_str(), 1);
      } else {
        unsetenv(saved.first.c_str());
      }
    }
  }
  void set(const std::string& name, const std::string& value) {
    remember(name);
    setenv(name.c_str(), value.c_str(), 1);
  }
  void unset(const std::string& name) {
    remember(name);
    unsetenv(name.c_str());
  }

 private:
  void remember(const std::string& name) {
    if (saved_.count(name)) return;
    const char* value = std::getenv(name.c_str());
    saved_[name] = value ? std::optional<std::string>(value) : std::nullopt;
  }
  std::map<std::string, std::optional<std::string>> saved_;
};

}  // namespace bexko::test
