#include "serve/format.h"

namespace fetchlet::serve {
namespace {

bool IsNameChar(char c, bool first) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         (!first && c >= '0' && c <= '9');
}

}  // namespace

void Parsed::Note(std::string note) {
  if (notes.size() < kMaxNotes) {
    notes.push_back(std::move(note));
  } else {
    ++notes_left_off;
  }
}

void Parsed::FinishNotes() {
  if (notes_left_off == 0) return;
  notes.push_back(std::to_string(notes_left_off) + " more notes left off");
  notes_left_off = 0;
}

bool IsMetricName(std::string_view name) {
  if (name.empty()) return false;
  for (size_t i = 0; i < name.size(); ++i) {
    if (!IsNameChar(name[i], i == 0)) return false;
  }
  return true;
}

std::string SanitizeName(std::string_view text) {
  std::string name;
  bool gap = false;
  for (const char c : text) {
    if (IsNameChar(c, false)) {
      if (gap && !name.empty()) name.push_back('_');
      gap = false;
      name.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
    } else {
      gap = true;
    }
  }
  if (name.empty()) return "_";
  if (name[0] >= '0' && name[0] <= '9') name = "_" + name;
  return name;
}

}  // namespace fetchlet::serve
