// Reading a password kept in a file of its own.
#ifndef FETCHLET_SERVE_PASSWORD_FILE_H_
#define FETCHLET_SERVE_PASSWORD_FILE_H_

#include <string>

namespace fetchlet::serve {

// The file's contents with one trailing line feed dropped. The file must be
// owned by the effective user and carry no group or other permission bits;
// otherwise false with *error set ("owned by uid N, not ...").
bool ReadPasswordFile(const std::string& path, std::string* password,
                      std::string* error);

// The same without the ownership rule, for a credential that the service
// manager placed in a directory private to this service.
bool ReadCredentialFile(const std::string& path, std::string* password,
                        std::string* error);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_PASSWORD_FILE_H_
