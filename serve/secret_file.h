// Passwords kept in files: one rule wherever the program reads one.
#ifndef QVE_SERVE_SECRET_FILE_H_
#define QVE_SERVE_SECRET_FILE_H_

#include <string>

namespace fetchlet {

// Reads the secret in path: a regular file owned by the effective user with
// no group or other permission bits, of at most 64 KiB; one trailing line
// feed is dropped. False with *error set (a message naming path) otherwise.
// The secret is never part of the message.
bool ReadSecretFile(const std::string& path, std::string* secret,
                    std::string* error);

// The same without the owner and mode rule, for a credential that the
// service manager placed in a directory private to this service.
bool ReadCredentialFile(const std::string& path, std::string* secret,
                        std::string* error);

// Overwrites text before it is released.
void WipeString(std::string* text);

}  // namespace fetchlet

#endif  // QVE_SERVE_SECRET_FILE_H_
