// Families of all collectors share one exposition, where no name may stand
// twice; a format collector's families are known only once it ran. Each
// name a family prints belongs to one collector at a time: a configured
// family's names are reserved for its collector, any other name is held by
// the collector that printed it first while it goes on printing it. A
// family that would print another collector's name is dropped and counted
// as a duplicate, never fatal.
#ifndef FETCHLET_SERVE_FAMILY_CLAIMS_H_
#define FETCHLET_SERVE_FAMILY_CLAIMS_H_

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "serve/config.h"
#include "serve/model.h"

namespace fetchlet::serve {

// Every sample name a family can print.
std::vector<std::string> PrintedNames(const Family& family);

class FamilyClaims {
 public:
  // The collectors now served: names their configured families print are
  // reserved for them; collectors no longer among them hold nothing.
  void Configure(const std::vector<CollectorConfig>& collectors);

  // Drops from *families each family that prints a name another collector
  // reserves or holds, with a note; collector holds the names of the rest
  // beside those it held. The number dropped. A collector not configured
  // (one removed while it ran) claims nothing: it is no longer scraped.
  uint64_t Claim(const std::string& collector, Families* families,
                 std::vector<std::string>* notes);

  // collector holds the names of families alone: called once its published
  // families are these, and those it held before are no longer scraped.
  void Settle(const std::string& collector, const Families& families);

 private:
  // The collector other than collector that name belongs to, or nullptr.
  const std::string* Owner(const std::string& collector,
                           const std::string& name) const;

  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::string> reserved_;  // name -> collector
  std::unordered_map<std::string, std::string> held_;      // name -> collector
  // collector -> the names it holds; every configured collector has one.
  std::unordered_map<std::string, std::vector<std::string>> holdings_;
};

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_FAMILY_CLAIMS_H_
