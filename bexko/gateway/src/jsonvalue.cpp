#include <bexko/gateway/jsonvalue.h>

#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace bexko {
namespace gateway {

namespace {

/// The double whose shortest decimal form is the shortest one that still reads back as `f`.
double shortestDouble(float f) {
  if (!std::isfinite(f)) return static_cast<double>(f);
  char buffer[32];
  const auto written = std::to_chars(buffer, buffer + sizeof buffer, f);
  double shortest = static_cast<double>(f);
  std::from_chars(buffer, written.ptr, shortest);
  return shortest;
}

nlohmann::json examplesToJson(const std::vector<ZR::ZRExampleInfo>& examples) {
  nlohmann::json out = nlohmann::json::array();
  for (const auto& example : examples) {
    out.push_back({{"language", example.language}, {"text", example.text}});
  }
  return out;
}

}  // namespace

nlohmann::json toJson(const ZR::ZRValue& value) {
  using Type = ZR::ZRValue::Type;
  switch (value.getType()) {
    case Type::Empty:
      return nullptr;
    case Type::Int:
      return value.toInt();
    case Type::Float: {
      const float f = value.toFloat();
      // JSON has no NaN or infinity; null is the honest "no number".
      if (!std::isfinite(f)) return nullptr;
      return shortestDouble(f);
    }
    case Type::Bool:
      return value.toBool();
    case Type::String:
      return value.toString();
    case Type::Array: {
      nlohmann::json out = nlohmann::json::array();
      for (const auto& item : value.toArray()) out.push_back(toJson(item));
      return out;
    }
  }
  return nullptr;
}

ZR::ZRValue fromJson(const nlohmann::json& json) {
  switch (json.type()) {
    case nlohmann::json::value_t::null:
    case nlohmann::json::value_t::discarded:
      return ZR::ZRValue();
    case nlohmann::json::value_t::boolean:
      return ZR::ZRValue(json.get<bool>());
    case nlohmann::json::value_t::string:
      return ZR::ZRValue(json.get<std::string>());
    case nlohmann::json::value_t::number_integer: {
      const std::int64_t v = json.get<std::int64_t>();
      if (v < std::numeric_limits<std::int32_t>::min() ||
          v > std::numeric_limits<std::int32_t>::max()) {
        throw JsonConversionError("integer " + std::to_string(v) + " is out of the 32-bit range");
      }
      return ZR::ZRValue(static_cast<int>(v));
    }
    case nlohmann::json::value_t::number_unsigned: {
      const std::uint64_t v = json.get<std::uint64_t>();
      if (v > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max())) {
        throw JsonConversionError("integer " + std::to_string(v) + " is out of the 32-bit range");
      }
      return ZR::ZRValue(static_cast<int>(v));
    }
    case nlohmann::json::value_t::number_float: {
      const double v = json.get<double>();
      if (std::fabs(v) > FLT_MAX) {
        throw JsonConversionError("number " + json.dump() + " is too large for a 32-bit float");
      }
      return ZR::ZRValue(static_cast<float>(v));
    }
    case nlohmann::json::value_t::array: {
      ZR::ZRValue::Array items;
      items.reserve(json.size());
      for (const auto& item : json) items.push_back(fromJson(item));
      return ZR::ZRValue(std::move(items));
    }
    case nlohmann::json::value_t::object:
      throw JsonConversionError("objects have no value form; use an array");
    case nlohmann::json::value_t::binary:
      throw JsonConversionError("binary values have no value form");
  }
  throw JsonConversionError("unknown JSON type");
}

std::size_t jsonNestingDepth(const std::string& text, std::size_t limit) {
  std::size_t depth = 0;
  std::size_t deepest = 0;
  bool inString = false;
  bool escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    switch (c) {
      case '"':
        inString = true;
        break;
      case '[':
      case '{':
        if (++depth > deepest) {
          deepest = depth;
          if (deepest > limit) return limit + 1;
        }
        break;
      case ']':
      case '}':
        if (depth > 0) --depth;
        break;
      default:
        break;
    }
  }
  return deepest;
}

nlohmann::json toJson(const ZR::ZRModuleInfo& info) {
  nlohmann::json methods = nlohmann::json::array();
  for (const auto& method : info.methods) {
    nlohmann::json parameters = nlohmann::json::array();
    for (const auto& parameter : method.parameters) {
      parameters.push_back({{"name", parameter.name}, {"description", parameter.description}});
    }
    nlohmann::json returned = nullptr;
    if (method.hasReturn) {
      returned = {{"name", method.returnInfo.name}, {"description", method.returnInfo.description}};
    }
    methods.push_back({{"name", method.name},
                       {"description", method.description},
                       {"parameters", std::move(parameters)},
                       {"return", std::move(returned)},
                       {"examples", examplesToJson(method.examples)}});
  }
  nlohmann::json events = nlohmann::json::array();
  for (const auto& event : info.events) {
    events.push_back({{"key", event.key}, {"description", event.description}});
  }
  return {{"name", info.name},
          {"description", info.description},
          {"examples", examplesToJson(info.examples)},
          {"methods", std::move(methods)},
          {"signals", info.signals},
          {"events", std::move(events)}};
}

std::string compactText(const nlohmann::json& json) {
  // Ids are mostly integers: written without setting up a serializer.
  if (json.is_number_unsigned()) return std::to_string(json.get<std::uint64_t>());
  if (json.is_number_integer()) return std::to_string(json.get<std::int64_t>());
  if (json.is_null()) return "null";
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string notificationText(const std::string& method, const nlohmann::json& params) {
  std::string text = "{\"jsonrpc\":\"2.0\",\"method\":";
  text += compactText(method);
  text += ",\"params\":";
  text += compactText(params);
  text += '}';
  return text;
}

}  // namespace gateway
}  // namespace bexko
