#pragma once

#include <string>
#include <vector>

namespace ZR {

struct ZRParameterInfo {
  std::string name;
  std::string description;
  bool operator==(const ZRParameterInfo& o) const {
    return name == o.name && description == o.description;
  }
};

struct ZRExampleInfo {
  std::string language;
  std::string text;
  bool operator==(const ZRExampleInfo& o) const {
    return language == o.language && text == o.text;
  }
};

/// The published documentation of one method (one overload).
struct ZRMethodInfo {
  std::string name;
  std::string moduleName;
  std::string description;
  std::vector<ZRParameterInfo> parameters;
  bool hasReturn = false;
  ZRParameterInfo returnInfo;
  std::vector<ZRExampleInfo> examples;
  /// Number of arguments the bound function takes (set when it is bound).
  int arity = 0;
};

/// The published documentation of a module: its methods in registration order, overloads as
/// separate entries.
struct ZRModuleInfo {
  std::string name;
  std::string description;
  std::vector<ZRExampleInfo> examples;
  std::vector<ZRMethodInfo> methods;
  std::vector<std::string> signals;
};

}  // namespace ZR
