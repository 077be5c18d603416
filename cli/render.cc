#include "render.h"

#include <string>
#include <string_view>

#include "qve/embedded.h"

namespace fetchlet {
namespace {

using qvehost::CellView;

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

bool InRange(unsigned char b, unsigned char lo, unsigned char hi) {
  return b >= lo && b <= hi;
}

// Bytes of the longest prefix of text that a well-formed UTF-8 sequence
// could start with (at least 1), and whether that prefix is a whole one.
std::pair<size_t, bool> Utf8Sequence(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return {1, true};
  if (lead < 0xC2 || lead > 0xF4) return {1, false};
  const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  unsigned char lo = 0x80, hi = 0xBF;
  if (lead == 0xE0) lo = 0xA0;
  if (lead == 0xED) hi = 0x9F;
  if (lead == 0xF0) lo = 0x90;
  if (lead == 0xF4) hi = 0x8F;
  size_t i = 1;
  for (; i < length && i < text.size(); ++i) {
    const auto b = static_cast<unsigned char>(text[i]);
    if (!InRange(b, lo, hi)) break;
    lo = 0x80;
    hi = 0xBF;
  }
  return {i, i == length};
}

// A JSON string straight onto the stream, so that a large text is never
// copied; each invalid UTF-8 sequence becomes U+FFFD.
void WriteJsonString(std::ostream& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  out << '"';
  size_t plain = 0;  // start of the bytes not yet written
  for (size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto [length, whole] = Utf8Sequence(text.substr(i));
    if (whole && byte >= 0x20 && byte != '"' && byte != '\\') {
      i += length;
      continue;
    }
    out.write(text.data() + plain, static_cast<std::streamsize>(i - plain));
    if (!whole) {
      out << kReplacement;
    } else if (byte == '"' || byte == '\\') {
      out << '\\' << static_cast<char>(byte);
    } else if (byte == '\n') {
      out << "\\n";
    } else if (byte == '\t') {
      out << "\\t";
    } else if (byte == '\r') {
      out << "\\r";
    } else if (byte == '\b') {
      out << "\\b";
    } else if (byte == '\f') {
      out << "\\f";
    } else {
      out << "\\u00" << kHex[byte >> 4] << kHex[byte & 0xF];
    }
    i += length;
    plain = i;
  }
  out.write(text.data() + plain,
            static_cast<std::streamsize>(text.size() - plain));
  out << '"';
}

void WriteJsonRow(std::ostream& out, const qvedrvr_ValueRow* row);

void WriteJsonRowArray(std::ostream& out,
                       const std::vector<const qvedrvr_ValueRow*>& rows) {
  out << '[';
  for (size_t i = 0; i < rows.size(); ++i) {
    if (i > 0) out << ',';
    WriteJsonRow(out, rows[i]);
  }
  out << ']';
}

void WriteJsonRows(std::ostream& out,
                   const std::vector<const qvedrvr_ValueRow*>& rows) {
  out << "{\"rows\":";
  WriteJsonRowArray(out, rows);
}

void WriteJsonRow(std::ostream& out, const qvedrvr_ValueRow* row) {
  if (row == nullptr) {
    out << "null";
    return;
  }
  out << '[';
  bool first = true;
  for (const CellView& cell : qvehost::RowView(*row)) {
    if (!first) out << ',';
    first = false;
    if (cell.kind == CellView::Kind::kText) {
      WriteJsonString(out, cell.text);
    } else if (cell.kind == CellView::Kind::kTable) {
      WriteJsonRows(out, cell.rows);
      out << '}';
    } else {
      out << "null";
    }
  }
  out << ']';
}

void WriteJsonResult(std::ostream& out, const qvedrmr_MetricResult* result) {
  if (result == nullptr) {
    out << "null";
    return;
  }
  WriteJsonRows(out, qvehost::ResultRows(result));
  out << ",\"warning\":";
  const std::string* warning = qvehost::ResultWarning(result);
  if (warning != nullptr) {
    WriteJsonString(out, *warning);
  } else {
    out << "null";
  }
  out << '}';
}

void PrintRows(std::ostream& out,
               const std::vector<const qvedrvr_ValueRow*>& rows, int indent) {
  const std::string margin(static_cast<size_t>(indent), ' ');
  for (const qvedrvr_ValueRow* row : rows) {
    if (row == nullptr) {
      out << margin << "(null row)\n";
      continue;
    }
    const std::vector<CellView> cells = qvehost::RowView(*row);
    out << margin;
    std::string_view last = margin;
    for (size_t i = 0; i < cells.size(); ++i) {
      if (i > 0) out << " | ";
      last = cells[i].kind == CellView::Kind::kText  ? cells[i].text
             : cells[i].kind == CellView::Kind::kNull ? "(null)"
                                                      : "(table)";
      out << last;
    }
    // A value that ends its own line (a command's whole output) gets no
    // second line feed.
    if (cells.empty() || last.empty() || last.back() != '\n') out << '\n';
    for (size_t i = 0; i < cells.size(); ++i) {
      if (cells[i].kind != CellView::Kind::kTable) continue;
      out << margin << "  [column " << i << "]\n";
      PrintRows(out, cells[i].rows, indent + 4);
    }
  }
}

}  // namespace

void PrintJson(std::ostream& out, int32_t status,
               const qvedrmr_MetricResult* result, qveue_Exception* exception,
               const std::string& resources) {
  out << "{\"status\":" << status << ",\"result\":";
  WriteJsonResult(out, result);
  out << ",\"exception\":";
  if (exception != nullptr) {
    out << "{\"kind\":" << qveue_Exception_getKind(exception)
        << ",\"message\":";
    WriteJsonString(out, qveue_Exception_getErrorMessage(exception));
    out << '}';
  } else {
    out << "null";
  }
  if (!resources.empty()) out << ",\"resources\":" << resources;
  out << "}\n";
}

void PrintJsonRows(std::ostream& out, const qvedrmr_MetricResult* result) {
  WriteJsonRowArray(out, qvehost::ResultRows(result));
}

void PrintTable(std::ostream& out, const qvedrmr_MetricResult* result) {
  if (result == nullptr) {
    out << kNoResult << "\n";
    return;
  }
  const std::vector<const qvedrvr_ValueRow*> rows = qvehost::ResultRows(result);
  const std::string* warning = qvehost::ResultWarning(result);
  if (rows.empty() && warning == nullptr) out << kNoRows << "\n";
  PrintRows(out, rows, 0);
  if (warning != nullptr) {
    std::string_view text = *warning;
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    out << "warning: " << text << "\n";
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
