#include <zr/zrerror.h>

#include <zr/zrfunctor.h>

namespace ZR {

ZRError::ZRError(std::string module, std::string method, std::string description, const char* file,
                 unsigned int line)
    : moduleName_(std::move(module)),
      methodName_(std::move(method)),
      description_(std::move(description)),
      file_(file ? file : ""),
      line_(line) {}

const char* ZRError::what() const noexcept { return description_.c_str(); }

std::string ZRError::toString() const {
  std::string text = moduleName_ + "::" + methodName_ + ": " + description_;
  if (!file_.empty()) text += " (" + file_ + ":" + std::to_string(line_) + ")";
  return text;
}

ZRArgumentError::ZRArgumentError(int index, const std::string& message)
    : ZRError("", "", message), index_(index) {}

// Out of line so that the class has one home for its type information, shared by the host and
// every module library that catches it.
ZRArgumentError::~ZRArgumentError() = default;

}  // namespace ZR
