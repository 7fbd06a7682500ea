// JSON text through the gateway's conversion to and from ZRValue: the nesting check must never
// count less than the parsed document holds, and every value that converts must come back unchanged
// from its JSON text.
#include <bexko/gateway/jsonvalue.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr std::size_t kDepthLimit = 64;

void fail(const std::string& what, const std::string& text) {
  std::fprintf(stderr, "%s: %s\n", what.c_str(), text.c_str());
  std::abort();
}

std::size_t depthOf(const nlohmann::json& json) {
  if (!json.is_structured()) return 0;
  std::size_t deepest = 0;
  for (const auto& item : json) deepest = std::max(deepest, depthOf(item));
  return deepest + 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace bexko::gateway;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::size_t depth = jsonNestingDepth(text, kDepthLimit);
  if (depth > kDepthLimit + 1) fail("the nesting count passed its limit", text);
  // As the session does: nothing deeper than the limit reaches the parser.
  if (depth > kDepthLimit) return 0;
  const nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
  if (json.is_discarded()) return 0;
  // The parser stops at a NUL byte and ignores what follows, where the count goes on: it may
  // count more than the document holds, never less.
  const std::size_t parsedDepth = depthOf(json);
  if (parsedDepth > depth || (parsedDepth != depth && text.find('\0') == std::string::npos)) {
    fail("jsonNestingDepth disagrees with the document", text);
  }
  ZR::ZRValue value;
  try {
    value = fromJson(json);
  } catch (const JsonConversionError&) {
    return 0;
  }
  const std::string sent = toJson(value).dump();
  ZR::ZRValue back;
  try {
    back = fromJson(nlohmann::json::parse(sent));
  } catch (const std::exception& e) {
    fail(std::string("the JSON form of a value is refused (") + e.what() + ")", sent);
  }
  if (back != value) fail("a value changed through its JSON form", sent);
  return 0;
}
