// Passwords kept in files: one rule wherever the program reads one.
#ifndef QVE_CLI_SECRET_FILE_H_
#define QVE_CLI_SECRET_FILE_H_

#include <string>

namespace fetchlet {

// Reads the secret in path: a regular file owned by the effective user with
// no group or other permission bits, of at most 64 KiB; one trailing line
// feed is dropped. False with *error set (a message naming path) otherwise.
// The secret is never part of the message.
bool ReadSecretFile(const std::string& path, std::string* secret,
                    std::string* error);

// Overwrites text before it is released.
void WipeString(std::string* text);

}  // namespace fetchlet

#endif  // QVE_CLI_SECRET_FILE_H_
