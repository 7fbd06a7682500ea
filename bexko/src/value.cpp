#include <zr/zrvalue.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <sstream>
#include <string>

namespace ZR {

namespace {

const char* kModule = "ZRValue";

[[noreturn]] void throwAccessError(const char* method, const std::string& message) {
  throw ZRError(kModule, method, message);
}

void appendQuoted(std::string& out, const std::string& text) {
  out += '"';
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char buffer[8];
          std::snprintf(buffer, sizeof buffer, "\\x%02x", c);
          out += buffer;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

std::string formatFloat(float v) {
  std::ostringstream stream;
  stream << v;
  std::string text = stream.str();
  // A whole float must not read like an int in a log line.
  if (std::isfinite(v) && text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

void appendDebug(std::string& out, const ZRValue& value) {
  switch (value.getType()) {
    case ZRValue::Type::Empty:
      out += "<empty>";
      break;
    case ZRValue::Type::Int:
      out += std::to_string(value.toInt());
      break;
    case ZRValue::Type::Float:
      out += formatFloat(value.toFloat());
      break;
    case ZRValue::Type::Bool:
      out += value.toBool() ? "true" : "false";
      break;
    case ZRValue::Type::String:
      appendQuoted(out, value.toString());
      break;
    case ZRValue::Type::Array: {
      out += '[';
      bool first = true;
      for (const auto& item : value.toArray()) {
        if (!first) out += ", ";
        first = false;
        appendDebug(out, item);
      }
      out += ']';
      break;
    }
  }
}

}  // namespace

void ZRValue::arraySetSize(int size) {
  if (size < 0) throwAccessError("arraySetSize", "negative size " + std::to_string(size));
  if (!isArray()) data_ = Array{};
  std::get<Array>(data_).resize(static_cast<std::size_t>(size));
}

int ZRValue::getSize() const {
  return isArray() ? static_cast<int>(std::get<Array>(data_).size()) : 0;
}

ZRValue& ZRValue::operator[](int index) {
  return const_cast<ZRValue&>(static_cast<const ZRValue&>(*this)[index]);
}

const ZRValue& ZRValue::operator[](int index) const {
  if (!isArray()) {
    throwAccessError("operator[]",
                     std::string("cannot index a value of type ") + typeName(getType()));
  }
  const auto& items = std::get<Array>(data_);
  if (index < 0 || static_cast<std::size_t>(index) >= items.size()) {
    throwAccessError("operator[]", "index " + std::to_string(index) +
                                       " out of range for an array of size " +
                                       std::to_string(items.size()));
  }
  return items[static_cast<std::size_t>(index)];
}

void ZRValue::push_back(ZRValue item) {
  if (isEmpty()) data_ = Array{};
  if (!isArray()) {
    throwAccessError("push_back",
                     std::string("cannot append to a value of type ") + typeName(getType()));
  }
  std::get<Array>(data_).push_back(std::move(item));
}

int ZRValue::toInt() const {
  if (!isInt()) detail::throwConversionError("int", *this);
  return std::get<int>(data_);
}

float ZRValue::toFloat() const {
  if (isInt()) return static_cast<float>(std::get<int>(data_));
  if (!isFloat()) detail::throwConversionError("float", *this);
  return std::get<float>(data_);
}

bool ZRValue::toBool() const {
  if (!isBool()) detail::throwConversionError("bool", *this);
  return std::get<bool>(data_);
}

const std::string& ZRValue::toString() const {
  if (!isString()) detail::throwConversionError("string", *this);
  return std::get<std::string>(data_);
}

const ZRValue::Array& ZRValue::toArray() const {
  if (!isArray()) detail::throwConversionError("array", *this);
  return std::get<Array>(data_);
}

ZRValue::Array& ZRValue::toArray() {
  if (!isArray()) detail::throwConversionError("array", *this);
  return std::get<Array>(data_);
}

std::string ZRValue::toDebugString() const {
  std::string out;
  appendDebug(out, *this);
  return out;
}

const char* ZRValue::typeName(Type type) {
  switch (type) {
    case Type::Empty:
      return "empty";
    case Type::Int:
      return "int";
    case Type::Float:
      return "float";
    case Type::Bool:
      return "bool";
    case Type::String:
      return "string";
    case Type::Array:
      return "array";
  }
  return "unknown";
}

int ZRValueConverter<int>::fromValue(const ZRValue& v) {
  if (v.isInt()) return v.toInt();
  if (v.isFloat()) {
    const float f = v.toFloat();
    // 2^31 is exactly representable as a float; INT_MAX is not, so compare against 2^31.
    const float limit = 2147483648.0f;
    if (std::isfinite(f) && std::trunc(f) == f && f >= -limit && f < limit) {
      return static_cast<int>(f);
    }
    throw ZRError(
        kModule, "convert",
        "expected int, got float " + v.toDebugString() + " (not a whole number in range)");
  }
  detail::throwConversionError("int", v);
}

float ZRValueConverter<float>::fromValue(const ZRValue& v) {
  if (v.isFloat() || v.isInt()) return v.toFloat();
  detail::throwConversionError("float", v);
}

double ZRValueConverter<double>::fromValue(const ZRValue& v) {
  if (v.isFloat()) return static_cast<double>(v.toFloat());
  if (v.isInt()) return static_cast<double>(v.toInt());
  detail::throwConversionError("float", v);
}

bool ZRValueConverter<bool>::fromValue(const ZRValue& v) {
  if (!v.isBool()) detail::throwConversionError("bool", v);
  return v.toBool();
}

std::string ZRValueConverter<std::string>::fromValue(const ZRValue& v) {
  if (!v.isString()) detail::throwConversionError("string", v);
  return v.toString();
}

namespace detail {

void throwConversionError(const char* expected, const ZRValue& actual) {
  throw ZRError(
      kModule, "convert",
      std::string("expected ") + expected + ", got " + ZRValue::typeName(actual.getType()));
}

}  // namespace detail

}  // namespace ZR
