#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include <zr/zrmethodinfo.h>
#include <zr/zrvalue.h>

namespace bexko {
namespace gateway {

/// Thrown when a JSON value has no ZRValue form: an object, or a number that does not fit.
class JsonConversionError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

/// The JSON form of a value: strings, ints, bools and arrays as themselves, an empty value as
/// null, a float as the shortest decimal that reads back as the same 32-bit float (0.1f is
/// sent as 0.1, not 0.10000000149011612).
nlohmann::json toJson(const ZR::ZRValue& value);

/// The ZRValue form of a JSON value: null is empty, integers become ints, other numbers
/// floats. Throws JsonConversionError for an object (a ZRValue has no map), for an integer
/// outside the 32-bit range (it is refused rather than silently turned into an inexact float)
/// and for a number too large for a 32-bit float.
ZR::ZRValue fromJson(const nlohmann::json& json);

/// The deepest nesting of arrays and objects in a JSON text, found without parsing it, so that
/// a hostile text is refused before any parser recurses into it. Brackets inside strings do
/// not count. Stops counting once `limit` is exceeded and returns limit + 1.
std::size_t jsonNestingDepth(const std::string& text, std::size_t limit);

/// The documentation of a module in the gateway's form:
/// {"name", "description", "examples", "methods": [{"name", "description", "parameters",
/// "return" (or null), "examples"}], "signals": [name], "events": [{"key", "description"}]}.
nlohmann::json toJson(const ZR::ZRModuleInfo& info);

/// The compact text of `json`, as a frame carries it. Invalid UTF-8 from a module must not make
/// a whole frame fail, so it is replaced.
std::string compactText(const nlohmann::json& json);

/// The text of the JSON-RPC notification `method` with `params`: the same bytes as the
/// document dumped whole (members in key order), without building it.
std::string notificationText(const std::string& method, const nlohmann::json& params);

}  // namespace gateway
}  // namespace bexko
