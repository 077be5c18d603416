// Shared pieces of the UDM tests: property lists from pairs, the outcome of
// a call as JSON, the expected four-column row, the server-version switch.
#ifndef QVE_TESTS_FOSUD_UDM_SUPPORT_H_
#define QVE_TESTS_FOSUD_UDM_SUPPORT_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "qve/embedded.h"

namespace qvetest::udm {

using Json = nlohmann::json;
using Properties = std::vector<std::pair<std::string, std::string>>;

constexpr int32_t kOldServer = QVE_SERVER_VERSION_CURRENT - 1;

// A host property list holding the pairs in order, deleted with the object.
class PropertyList {
 public:
  explicit PropertyList(const Properties& pairs)
      : list_(qvehost::NewPropertyList()) {
    for (const auto& [name, value] : pairs) {
      qvehost::SetProperty(list_, name, value);
    }
  }
  ~PropertyList() { qvehost::DeletePropertyList(list_); }
  PropertyList(const PropertyList&) = delete;
  PropertyList& operator=(const PropertyList&) = delete;

  qvlnv_NVList* get() const { return list_; }

 private:
  qvlnv_NVList* list_;
};

// The server version the host reports while the object lives.
class ServerVersion {
 public:
  explicit ServerVersion(int32_t version) { qvehost::SetServerVersion(version); }
  ~ServerVersion() { qvehost::SetServerVersion(QVE_SERVER_VERSION_CURRENT); }
  ServerVersion(const ServerVersion&) = delete;
  ServerVersion& operator=(const ServerVersion&) = delete;
};

// {"status", "result"} and, when an exception was handed back, its "kind"
// and "message". Releases the result and the exception.
inline Json Outcome(int32_t status, qvedrmr_MetricResult* result,
                    qveue_Exception* exception) {
  Json outcome = {{"status", status}, {"result", nullptr}};
  if (result != nullptr) {
    outcome["result"] = qvehost::ResultToJson(result);
    qvedrmr_MetricResult_delete(result);
  }
  if (exception != nullptr) {
    outcome["kind"] = qveue_Exception_getKind(exception);
    outcome["message"] = qveue_Exception_getErrorMessage(exception);
    qveue_Exception_delete(exception);
  }
  return outcome;
}

// The one-row result: command ID, number value, string value, message.
inline Json Row(Json id, Json number, Json string, Json message) {
  Json result = Json::object();
  result["rows"] = Json::array({Json::array(
      {std::move(id), std::move(number), std::move(string),
       std::move(message)})});
  result["warning"] = nullptr;
  return result;
}

inline Json Succeeded(Json result) {
  return {{"status", 0}, {"result", std::move(result)}};
}

inline Json Failed(int32_t status, int32_t kind, const std::string& message) {
  return {{"status", status},
          {"result", nullptr},
          {"kind", kind},
          {"message", message}};
}

}  // namespace qvetest::udm

#endif  // QVE_TESTS_FOSUD_UDM_SUPPORT_H_
