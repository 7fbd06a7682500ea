#pragma once

#include <exception>
#include <string>

#include <zr/export.h>

namespace ZR {

/// The host's exception: the one way in which failures reach callers of a module method.
///
/// It carries the module and method that failed and a description. `what()` is the description
/// alone, so that an error can be wrapped into another one's message without repeating names;
/// `toString()` is the full report "<module>::<method>: <description>" followed by
/// " (<file>:<line>)" when a source location was given.
class BEXKO_API ZRError : public std::exception {
 public:
  /// `file` may be null and `line` 0 when no source location is known.
  ZRError(std::string module, std::string method, std::string description,
          const char* file = nullptr, unsigned int line = 0);

  const char* what() const noexcept override;
  std::string toString() const;

  const std::string& moduleName() const { return moduleName_; }
  const std::string& methodName() const { return methodName_; }
  const std::string& description() const { return description_; }
  const std::string& file() const { return file_; }
  unsigned int line() const { return line_; }

 private:
  std::string moduleName_;
  std::string methodName_;
  std::string description_;
  std::string file_;
  unsigned int line_;
};

}  // namespace ZR
