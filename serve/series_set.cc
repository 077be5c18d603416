#include "serve/series_set.h"

#include <functional>

namespace fetchlet::serve {
namespace {

// Labels are hashed each alone and summed, so that their order does not
// count: {a="1",b="2"} and {b="2",a="1"} are one series.
uint64_t Hash(const Labels& labels, std::string_view suffix) {
  const std::hash<std::string_view> hash;
  uint64_t sum = hash(suffix);
  for (const auto& [name, value] : labels) {
    const uint64_t one = hash(name) * 0x9E3779B97F4A7C15ull ^ hash(value);
    sum += one * 0xBF58476D1CE4E5B9ull;
  }
  return sum;
}

// Label names are never given twice, so that the same size and each label
// found in other is the same set.
bool SameSeries(const Sample& sample, const Labels& labels, std::string_view suffix) {
  if (sample.suffix != suffix || sample.labels.size() != labels.size()) return false;
  for (const auto& label : labels) {
    bool found = false;
    for (const auto& other : sample.labels) {
      if (other.first == label.first) {
        found = other.second == label.second;
        break;
      }
    }
    if (!found) return false;
  }
  return true;
}

}  // namespace

bool SeriesSet::Seen(const std::vector<Sample>& samples, const Labels& labels,
                     std::string_view suffix) {
  if ((used_ + 1) * 2 > slots_.size()) Grow();
  const uint64_t hash = Hash(labels, suffix);
  const size_t mask = slots_.size() - 1;
  size_t at = hash & mask;
  for (; slots_[at] != 0; at = (at + 1) & mask) {
    if (hashes_[at] == hash && SameSeries(samples[slots_[at] - 1], labels, suffix)) {
      return true;
    }
  }
  slots_[at] = static_cast<uint32_t>(samples.size() + 1);
  hashes_[at] = hash;
  ++used_;
  return false;
}

void SeriesSet::Grow() {
  std::vector<uint32_t> slots(slots_.empty() ? 16 : slots_.size() * 2, 0);
  std::vector<uint64_t> hashes(slots.size());
  const size_t mask = slots.size() - 1;
  for (size_t i = 0; i < slots_.size(); ++i) {
    if (slots_[i] == 0) continue;
    size_t at = hashes_[i] & mask;
    while (slots[at] != 0) at = (at + 1) & mask;
    slots[at] = slots_[i];
    hashes[at] = hashes_[i];
  }
  slots_ = std::move(slots);
  hashes_ = std::move(hashes);
}

}  // namespace fetchlet::serve
