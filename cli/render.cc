#include "render.h"

#include <string>

#include "qve/embedded.h"

namespace fetchlet {
namespace {

using Json = nlohmann::json;

std::string CellText(const Json& cell) {
  if (cell.is_null()) return "(null)";
  if (cell.is_object()) return "(table)";
  return cell.get<std::string>();
}

void PrintRows(std::ostream& out, const Json& rows, int indent) {
  const std::string margin(static_cast<size_t>(indent), ' ');
  for (const Json& row : rows) {
    std::string line = margin;
    for (size_t i = 0; i < row.size(); ++i) {
      line += (i > 0 ? " | " : "") + CellText(row[i]);
    }
    // A value that ends its own line (a command's whole output) gets no
    // second line feed.
    if (line.empty() || line.back() != '\n') line += '\n';
    out << line;
    for (size_t i = 0; i < row.size(); ++i) {
      if (!row[i].is_object()) continue;
      out << margin << "  [column " << i << "]\n";
      PrintRows(out, row[i]["rows"], indent + 4);
    }
  }
}

}  // namespace

void PrintJson(std::ostream& out, int32_t status,
               const qvedrmr_MetricResult* result, qveue_Exception* exception) {
  nlohmann::ordered_json outcome;
  outcome["status"] = status;
  outcome["result"] = result != nullptr ? qvehost::ResultToJson(result) : Json();
  outcome["exception"] = nullptr;
  if (exception != nullptr) {
    outcome["exception"] = {
        {"kind", qveue_Exception_getKind(exception)},
        {"message", qveue_Exception_getErrorMessage(exception)}};
  }
  out << outcome.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
}

void PrintTable(std::ostream& out, const qvedrmr_MetricResult* result) {
  const Json json = qvehost::ResultToJson(result);
  PrintRows(out, json["rows"], 0);
  if (json["warning"].is_string()) {
    std::string warning = json["warning"].get<std::string>();
    if (!warning.empty() && warning.back() == '\n') warning.pop_back();
    out << "warning: " << warning << "\n";
  }
}

void PrintFailure(std::ostream& err, int32_t status,
                  qveue_Exception* exception) {
  if (exception == nullptr) {
    err << "error: the metric failed with status " << status
        << " and no exception\n";
    return;
  }
  err << "error (kind " << qveue_Exception_getKind(exception)
      << "): " << qveue_Exception_getErrorMessage(exception) << "\n";
}

}  // namespace fetchlet
