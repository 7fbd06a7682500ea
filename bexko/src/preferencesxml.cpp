#include <zr/zrpreferencesproxy.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <pugixml.hpp>

namespace ZR {

namespace {

namespace fs = std::filesystem;

const char* kModule = "ZRPreferences";
const char* kRead = "readPrefFile";
const char* kWrite = "writePrefFile";

std::string formatFloat(float value) {
  // The shortest text that reads back as exactly the same float.
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::string trimmed(const char* text) {
  std::string s(text);
  const char* spaces = " \t\r\n";
  const std::size_t begin = s.find_first_not_of(spaces);
  if (begin == std::string::npos) return std::string();
  return s.substr(begin, s.find_last_not_of(spaces) - begin + 1);
}

void appendValue(pugi::xml_node parent, const ZRValue& value) {
  pugi::xml_node node = parent.append_child("value");
  node.append_attribute("type") = ZRValue::typeName(value.getType());
  switch (value.getType()) {
    case ZRValue::Type::Empty:
      break;
    case ZRValue::Type::Int:
      node.text().set(std::to_string(value.toInt()).c_str());
      break;
    case ZRValue::Type::Float:
      node.text().set(formatFloat(value.toFloat()).c_str());
      break;
    case ZRValue::Type::Bool:
      node.text().set(value.toBool() ? "true" : "false");
      break;
    case ZRValue::Type::String:
      if (!value.toString().empty()) node.text().set(value.toString().c_str());
      break;
    case ZRValue::Type::Array:
      for (const auto& item : value.toArray()) appendValue(node, item);
      break;
  }
}

/// Reads one <value> element; `where` names the source in error messages.
ZRValue readValue(const pugi::xml_node& node, const std::string& where) {
  auto fail = [&](const std::string& reason) -> ZRError {
    return ZRError(
        kModule, kRead,
        where + ": " + reason + " (at offset " + std::to_string(node.offset_debug()) + ")");
  };
  const std::string type = node.attribute("type").value();
  if (type == "array") {
    ZRValue::Array items;
    for (pugi::xml_node child = node.first_child(); child; child = child.next_sibling()) {
      if (child.type() == pugi::node_element) {
        if (std::strcmp(child.name(), "value") != 0) {
          throw fail(std::string("unexpected element <") + child.name() + "> in an array");
        }
        items.push_back(readValue(child, where));
      } else if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
        if (!trimmed(child.value()).empty()) throw fail("text inside an array value");
      }
    }
    return ZRValue(std::move(items));
  }
  if (node.find_child([](pugi::xml_node n) { return n.type() == pugi::node_element; })) {
    throw fail("a value of type \"" + type + "\" cannot contain elements");
  }
  const char* text = node.child_value();
  if (type == "string") return ZRValue(std::string(node.text().get()));
  if (type == "empty") {
    if (!trimmed(text).empty()) throw fail("an empty value cannot hold text");
    return ZRValue();
  }
  const std::string word = trimmed(node.text().get());
  if (type == "int") {
    int result = 0;
    const auto parsed = std::from_chars(word.data(), word.data() + word.size(), result);
    if (word.empty() || parsed.ec != std::errc() || parsed.ptr != word.data() + word.size()) {
      throw fail("\"" + word + "\" is not an int");
    }
    return ZRValue(result);
  }
  if (type == "float") {
    float result = 0;
    const auto parsed = std::from_chars(word.data(), word.data() + word.size(), result);
    if (word.empty() || parsed.ec != std::errc() || parsed.ptr != word.data() + word.size()) {
      throw fail("\"" + word + "\" is not a float");
    }
    return ZRValue(result);
  }
  if (type == "bool") {
    if (word == "true") return ZRValue(true);
    if (word == "false") return ZRValue(false);
    throw fail("\"" + word + "\" is not a bool (true or false)");
  }
  if (type.empty()) throw fail("a <value> without a type");
  throw fail("unknown value type \"" + type + "\"");
}

ZRValue parseDocument(const std::string& text, const std::string& where) {
  pugi::xml_document document;
  const pugi::xml_parse_result parsed =
      document.load_buffer(text.data(), text.size(),
                           pugi::parse_default | pugi::parse_ws_pcdata_single, pugi::encoding_utf8);
  if (!parsed) {
    throw ZRError(kModule, kRead,
                  where + ": malformed XML: " + parsed.description() + " (at offset " +
                      std::to_string(parsed.offset) + ")");
  }
  const pugi::xml_node root = document.document_element();
  if (!root || std::strcmp(root.name(), "preferences") != 0) {
    throw ZRError(kModule, kRead,
                  where + ": the root element must be <preferences>, not <" +
                      std::string(root ? root.name() : "") + ">");
  }
  const pugi::xml_attribute version = root.attribute("version");
  if (version && std::strcmp(version.value(), "1") != 0) {
    throw ZRError(kModule, kRead,
                  where + ": unsupported preference file version \"" + version.value() + "\"");
  }
  pugi::xml_node value;
  for (pugi::xml_node child = root.first_child(); child; child = child.next_sibling()) {
    if (child.type() != pugi::node_element) continue;
    if (std::strcmp(child.name(), "value") != 0 || value) {
      throw ZRError(kModule, kRead,
                    where + ": <preferences> must hold exactly one <value> element");
    }
    value = child;
  }
  if (!value) {
    throw ZRError(kModule, kRead, where + ": <preferences> must hold exactly one <value> element");
  }
  return readValue(value, where);
}

std::string systemError(const std::string& what, int error) {
  return what + ": " + std::strerror(error);
}

/// write(2) until everything is out; false with errno set on failure.
bool writeAll(int fd, const std::string& data) {
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t written = ::write(fd, data.data() + done, data.size() - done);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace

std::string formatPreferenceXml(const ZRValue& value) {
  pugi::xml_document document;
  pugi::xml_node declaration = document.append_child(pugi::node_declaration);
  declaration.append_attribute("version") = "1.0";
  declaration.append_attribute("encoding") = "UTF-8";
  pugi::xml_node root = document.append_child("preferences");
  root.append_attribute("version") = "1";
  appendValue(root, value);
  std::ostringstream out;
  document.save(out, "  ", pugi::format_default, pugi::encoding_utf8);
  return out.str();
}

ZRValue parsePreferenceXml(const std::string& text) {
  return parseDocument(text, "preference XML");
}

ZRValue readPreferenceXml(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    const int error = errno;
    throw ZRError(kModule, kRead,
                  systemError("cannot read preference file " + path, error ? error : ENOENT));
  }
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) {
    throw ZRError(kModule, kRead, "cannot read preference file " + path + ": read error");
  }
  return parseDocument(text, "preference file " + path);
}

void writePreferenceXml(const std::string& path, const ZRValue& value) {
  const std::string text = formatPreferenceXml(value);
  const fs::path target(path);
  fs::path folder = target.parent_path();
  if (folder.empty()) folder = ".";
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) {
    throw ZRError(kModule, kWrite,
                  "cannot write preference file " + path + ": cannot create folder " +
                      folder.string() + ": " + error.message());
  }

  // The new content goes to a temporary file beside the target and replaces it by rename, so a
  // crash leaves either the old file or the new one, never a torn one.
  std::string temporary = (folder / (target.filename().string() + ".tmp-XXXXXX")).string();
  const int fd = ::mkstemp(&temporary[0]);
  if (fd < 0) {
    throw ZRError(kModule, kWrite,
                  systemError("cannot write preference file " + path +
                                  ": cannot create a temporary file in " + folder.string(),
                              errno));
  }
  auto failWith = [&](const std::string& step) {
    const int saved = errno;
    ::close(fd);
    ::unlink(temporary.c_str());
    throw ZRError(kModule, kWrite,
                  systemError("cannot write preference file " + path + ": " + step, saved));
  };
  struct stat existing {};
  const mode_t mode = ::stat(path.c_str(), &existing) == 0 ? (existing.st_mode & 07777) : 0644;
  if (::fchmod(fd, mode) != 0) failWith("cannot set its permissions");
  if (!writeAll(fd, text)) failWith("cannot write " + temporary);
  if (::fsync(fd) != 0) failWith("cannot flush " + temporary);
  if (::close(fd) != 0) {
    const int saved = errno;
    ::unlink(temporary.c_str());
    throw ZRError(
        kModule, kWrite,
        systemError("cannot write preference file " + path + ": cannot close " + temporary, saved));
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    const int saved = errno;
    ::unlink(temporary.c_str());
    throw ZRError(
        kModule, kWrite,
        systemError("cannot write preference file " + path + ": cannot replace it", saved));
  }
  // Make the rename itself durable; a failure here loses nothing already written.
  const int folderFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folderFd >= 0) {
    ::fsync(folderFd);
    ::close(folderFd);
  }
}

}  // namespace ZR
