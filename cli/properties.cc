#include "properties.h"

#include <fstream>

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

}  // namespace

bool ReadPropertiesFile(const std::string& path, std::vector<Property>* out,
                        std::string* error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    *error = "cannot read properties file " + path;
    return false;
  }
  const Json json = Json::parse(file, nullptr, false);
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
