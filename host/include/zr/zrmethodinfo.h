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
  bool operator==(const ZRExampleInfo& o) const { return language == o.language && text == o.text; }
};

/// An event key of the store "ZRMemory" that a module declares and raises, as it documents it.
struct ZREventInfo {
  std::string key;
  std::string description;
  bool operator==(const ZREventInfo& o) const {
    return key == o.key && description == o.description;
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
/// separate entries, and the event keys it documents, in the order it documented them.
struct ZRModuleInfo {
  std::string name;
  std::string description;
  std::vector<ZRExampleInfo> examples;
  std::vector<ZRMethodInfo> methods;
  std::vector<std::string> signals;
  std::vector<ZREventInfo> events;
};

}  // namespace ZR
