#include "properties.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <nlohmann/json.hpp>

namespace fetchlet {
namespace {

using Json = nlohmann::ordered_json;

bool AddPair(const Json& name, const Json& value, std::vector<Property>* out) {
  if (!name.is_string() || !value.is_string()) return false;
  out->emplace_back(name.get<std::string>(), value.get<std::string>());
  return true;
}

bool ReadJson(const Json& json, std::vector<Property>* out) {
  if (json.is_object()) {
    for (const auto& [name, value] : json.items()) {
      if (!AddPair(name, value, out)) return false;
    }
    return true;
  }
  if (!json.is_array()) return false;
  for (const Json& pair : json) {
    if (!pair.is_array() || pair.size() != 2) return false;
    if (!AddPair(pair[0], pair[1], out)) return false;
  }
  return true;
}

// The whole of a regular file; a message otherwise. O_NONBLOCK: opening a
// FIFO must not wait for a writer.
std::string ReadRegularFile(const std::string& path, std::string* text) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return strerror(errno);
  struct stat info;
  std::string why;
  if (fstat(fd, &info) != 0) {
    why = strerror(errno);
  } else if (S_ISDIR(info.st_mode)) {
    why = "it is a directory";
  } else if (!S_ISREG(info.st_mode)) {
    why = "it is not a regular file";
  }
  char chunk[65536];
  while (why.empty()) {
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) why = strerror(errno);
    if (n <= 0) break;
    text->append(chunk, static_cast<size_t>(n));
  }
  close(fd);
  return why;
}

}  // namespace

bool ReadPropertiesFile(const std::string& path, std::vector<Property>* out,
                        std::string* error) {
  std::string text;
  const std::string why = ReadRegularFile(path, &text);
  if (!why.empty()) {
    *error = "cannot read properties file " + path + ": " + why;
    return false;
  }
  const Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded() || !ReadJson(json, out)) {
    *error = "properties file " + path +
             " is not a JSON array of [name, value] pairs or a JSON object "
             "of strings";
    return false;
  }
  return true;
}

bool ParseAssignment(const std::string& argument, Property* out) {
  const size_t equals = argument.find('=');
  if (equals == std::string::npos || equals == 0) return false;
  *out = {argument.substr(0, equals), argument.substr(equals + 1)};
  return true;
}

}  // namespace fetchlet
