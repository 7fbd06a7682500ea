#pragma once

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <zr/export.h>
#include <zr/zrerror.h>

namespace ZR {

/// The host's dynamic value: empty, int (32-bit), float (32-bit), bool, string or array of values.
///
/// Method arguments and results, event values and preference trees cross the host as ZRValue.
/// Copyable; compares by type and content (an int never equals a float).
class BEXKO_API ZRValue {
 public:
  enum class Type { Empty, Int, Float, Bool, String, Array };
  using Array = std::vector<ZRValue>;

  ZRValue() = default;
  ZRValue(int v) : data_(v) {}
  ZRValue(float v) : data_(v) {}
  ZRValue(double v) : data_(static_cast<float>(v)) {}
  ZRValue(bool v) : data_(v) {}
  ZRValue(const char* v) : data_(std::string(v ? v : "")) {}
  ZRValue(std::string v) : data_(std::move(v)) {}
  ZRValue(Array v) : data_(std::move(v)) {}

  /// An array of the given items, each converted with ZRValueConverter:
  /// `ZRValue::array<int, std::string>(id, "done")`.
  template <typename... T>
  static ZRValue array(const T&... items);

  Type getType() const { return static_cast<Type>(data_.index()); }
  bool isEmpty() const { return getType() == Type::Empty; }
  bool isInt() const { return getType() == Type::Int; }
  bool isFloat() const { return getType() == Type::Float; }
  bool isBool() const { return getType() == Type::Bool; }
  bool isString() const { return getType() == Type::String; }
  bool isArray() const { return getType() == Type::Array; }

  /// Makes this value an array of `size` items, keeping existing items and padding with empty
  /// values; a non-array value becomes an array first.
  void arraySetSize(int size);
  /// Number of items of an array; 0 for any other type.
  int getSize() const;
  /// Item of an array. Throws ZRError for a non-array or an index out of range.
  ZRValue& operator[](int index);
  const ZRValue& operator[](int index) const;
  /// Appends an item, turning an empty value into an array first.
  void push_back(ZRValue item);

  /// Typed reads. Throw ZRError when the type does not fit; toFloat() accepts an int.
  int toInt() const;
  float toFloat() const;
  bool toBool() const;
  const std::string& toString() const;
  const Array& toArray() const;
  Array& toArray();

  /// A compact human-readable form for logs: 1, 1.5, true, "text", [1, "a"], <empty>.
  std::string toDebugString() const;
  static const char* typeName(Type type);

  bool operator==(const ZRValue& other) const { return data_ == other.data_; }
  bool operator!=(const ZRValue& other) const { return !(*this == other); }

 private:
  std::variant<std::monostate, int, float, bool, std::string, Array> data_;
};

/// Converts C++ values to and from ZRValue, for method calls by name and typed proxies.
/// `fromValue` throws ZRError (module "ZRValue", method "convert") with a message naming the
/// expected and the actual type. Specialise it for a type to make it callable through the host.
template <typename T, typename Enable = void>
struct ZRValueConverter;

template <>
struct ZRValueConverter<ZRValue> {
  static ZRValue toValue(const ZRValue& v) { return v; }
  static ZRValue fromValue(const ZRValue& v) { return v; }
  static const char* typeName() { return "value"; }
};

template <>
struct BEXKO_API ZRValueConverter<int> {
  static ZRValue toValue(int v) { return ZRValue(v); }
  /// Accepts an int, or a float that holds a whole number in range.
  static int fromValue(const ZRValue& v);
  static const char* typeName() { return "int"; }
};

template <>
struct BEXKO_API ZRValueConverter<float> {
  static ZRValue toValue(float v) { return ZRValue(v); }
  /// Accepts a float or an int.
  static float fromValue(const ZRValue& v);
  static const char* typeName() { return "float"; }
};

template <>
struct BEXKO_API ZRValueConverter<double> {
  static ZRValue toValue(double v) { return ZRValue(v); }
  static double fromValue(const ZRValue& v);
  static const char* typeName() { return "float"; }
};

template <>
struct BEXKO_API ZRValueConverter<bool> {
  static ZRValue toValue(bool v) { return ZRValue(v); }
  static bool fromValue(const ZRValue& v);
  static const char* typeName() { return "bool"; }
};

template <>
struct BEXKO_API ZRValueConverter<std::string> {
  static ZRValue toValue(const std::string& v) { return ZRValue(v); }
  static std::string fromValue(const ZRValue& v);
  static const char* typeName() { return "string"; }
};

/// String literals convert to string values (one way only).
template <>
struct ZRValueConverter<const char*> {
  static ZRValue toValue(const char* v) { return ZRValue(v); }
  static const char* typeName() { return "string"; }
};
template <>
struct ZRValueConverter<char*> {
  static ZRValue toValue(const char* v) { return ZRValue(v); }
  static const char* typeName() { return "string"; }
};

template <typename T>
struct ZRValueConverter<std::vector<T>> {
  static ZRValue toValue(const std::vector<T>& v) {
    ZRValue::Array items;
    items.reserve(v.size());
    for (const auto& item : v) items.push_back(ZRValueConverter<T>::toValue(item));
    return ZRValue(std::move(items));
  }
  /// Accepts an array whose every item converts, or an empty value (an empty vector).
  static std::vector<T> fromValue(const ZRValue& v);
  static const char* typeName() { return "array"; }
};

namespace detail {
/// Throws the conversion error for `expected` when `actual` does not fit.
[[noreturn]] BEXKO_API void throwConversionError(const char* expected, const ZRValue& actual);
}  // namespace detail

template <typename T>
std::vector<T> ZRValueConverter<std::vector<T>>::fromValue(const ZRValue& v) {
  std::vector<T> out;
  if (v.isEmpty()) return out;
  if (!v.isArray()) detail::throwConversionError("array", v);
  out.reserve(v.getSize());
  for (const auto& item : v.toArray()) out.push_back(ZRValueConverter<T>::fromValue(item));
  return out;
}

template <typename T>
ZRValue toZRValue(const T& v) {
  return ZRValueConverter<std::decay_t<T>>::toValue(v);
}

template <typename T>
std::decay_t<T> fromZRValue(const ZRValue& v) {
  return ZRValueConverter<std::decay_t<T>>::fromValue(v);
}

template <typename... T>
ZRValue ZRValue::array(const T&... items) {
  return ZRValue(Array{toZRValue(items)...});
}

}  // namespace ZR
