// A preference file's text through the reader of zr/zrpreferencesproxy.h; what it accepts must
// survive a write and a second read unchanged.
#include <zr/zrpreferencesproxy.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <zr/zrerror.h>

#include "fuzzsupport.h"

namespace {

// Equality with every NaN equal to itself: "nan" is a float the reader accepts.
bool sameValue(const ZR::ZRValue& a, const ZR::ZRValue& b) {
  if (a.isFloat() && b.isFloat()) {
    const float x = a.toFloat();
    const float y = b.toFloat();
    return x == y || (x != x && y != y);
  }
  if (!a.isArray() || !b.isArray()) return a == b;
  if (a.getSize() != b.getSize()) return false;
  for (int i = 0; i < a.getSize(); ++i) {
    if (!sameValue(a[i], b[i])) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  bexko::fuzz::prepareFuzzing();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  ZR::ZRValue value;
  try {
    value = ZR::parsePreferenceXml(text);
  } catch (const ZR::ZRError&) {
    return 0;  // a malformed file is refused with the contract's error
  }
  const std::string written = ZR::formatPreferenceXml(value);
  ZR::ZRValue reread;
  try {
    reread = ZR::parsePreferenceXml(written);
  } catch (const ZR::ZRError& e) {
    std::fprintf(stderr, "the writer's own output is refused: %s\n%s\n", e.what(), written.c_str());
    std::abort();
  }
  if (!sameValue(reread, value)) {
    std::fprintf(stderr, "a value changed through a write and a read:\n%s\n", written.c_str());
    std::abort();
  }
  return 0;
}
