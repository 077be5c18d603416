// The properties of a run, from a JSON file and from NAME=VALUE arguments.
#ifndef QVE_CLI_PROPERTIES_H_
#define QVE_CLI_PROPERTIES_H_

#include <string>
#include <utility>
#include <vector>

namespace fetchlet {

using Property = std::pair<std::string, std::string>;

// Reads a JSON array of [name, value] pairs or a JSON object (order kept).
// False with *error set when the file is unreadable or malformed.
bool ReadPropertiesFile(const std::string& path, std::vector<Property>* out,
                        std::string* error);

// Splits NAME=VALUE at the first '='; the value is kept byte for byte.
bool ParseAssignment(const std::string& argument, Property* out);

}  // namespace fetchlet

#endif  // QVE_CLI_PROPERTIES_H_
