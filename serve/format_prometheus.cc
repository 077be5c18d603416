#include "serve/format_prometheus.h"

#include <unordered_set>
#include <vector>

#include "serve/exposition.h"
#include "serve/family_claims.h"
#include "serve/format_prometheus_line.h"
#include "serve/series_set.h"

namespace fetchlet::serve {
namespace {

struct TypeName {
  std::string_view name;
  MetricType type;
  bool text;         // the 0.0.4 format has it
  bool openmetrics;  // OpenMetrics has it
};

// gaugehistogram is missing: the 0.0.4 format cannot carry it.
constexpr TypeName kTypes[] = {
    {"counter", MetricType::kCounter, true, true},
    {"gauge", MetricType::kGauge, true, true},
    {"histogram", MetricType::kHistogram, true, true},
    {"summary", MetricType::kSummary, true, true},
    {"untyped", MetricType::kUnknown, true, false},
    {"unknown", MetricType::kUnknown, false, true},
    {"info", MetricType::kInfo, false, true},
    {"stateset", MetricType::kStateset, false, true}};

constexpr std::string_view kTotal = "_total";

// The family being read: the lines since its first metadata or sample.
struct Block {
  std::string base;  // as its metadata lines name it
  MetricType type = MetricType::kUnknown;
  bool typed = false;
  bool helped = false;
  bool has_unit = false;
  std::string drop;  // why its lines are dropped; "" while kept
  const char* drop_kind = "parse";
  Family family;
  SeriesSet series;
};

// The suffix that a sample of block named name carries, or nullopt when
// the sample is not the block's. "_created" samples are the block's but
// dropped: the model has no place for them.
std::optional<std::string_view> SuffixOf(const Block& block,
                                         std::string_view name) {
  if (!name.starts_with(block.base)) return std::nullopt;
  const std::string_view suffix = name.substr(block.base.size());
  const auto any_of = [&](std::initializer_list<std::string_view> list)
      -> std::optional<std::string_view> {
    for (const std::string_view each : list) {
      if (suffix == each) return each;
    }
    return std::nullopt;
  };
  if (!block.drop.empty()) {  // whatever its type was meant to be
    return any_of({"", "_total", "_created", "_info", "_bucket", "_sum",
                   "_count", "_gcount", "_gsum"});
  }
  switch (block.type) {
    case MetricType::kCounter:
      return block.base.ends_with(kTotal) ? any_of({""})
                                          : any_of({kTotal, "_created"});
    case MetricType::kInfo:
      return any_of({"_info"});
    case MetricType::kHistogram:
      return any_of({"_bucket", "_sum", "_count", "_created"});
    case MetricType::kSummary:
      return any_of({"", "_sum", "_count", "_created"});
    default:
      return any_of({""});
  }
}

// Why a sample of block with suffix does not fit its type, or "".
std::string TypeProblem(const Block& block, std::string_view suffix,
                        const Labels& labels) {
  const auto label = [&](std::string_view name) -> const std::string* {
    for (const auto& [key, value] : labels) {
      if (key == name) return &value;
    }
    return nullptr;
  };
  if (block.type == MetricType::kHistogram && suffix == "_bucket") {
    const std::string* le = label("le");
    if (le == nullptr || !ParseFloat(*le)) return "a bucket without a valid le";
  }
  if (block.type == MetricType::kSummary && suffix.empty() &&
      label("quantile") == nullptr) {
    return "a summary quantile without a quantile label";
  }
  if (block.type == MetricType::kStateset && label(block.base) == nullptr) {
    return "a stateset sample without its label " + block.base;
  }
  return "";
}

class Parser {
 public:
  Parser(const PrometheusOptions& options, bool openmetrics, Parsed* out)
      : options_(options), openmetrics_(openmetrics), out_(*out) {}

  void Line(std::string_view line);
  void Finish();

 private:
  void OnMetadata(const MetadataLine& metadata);
  void SetMetadata(Block& block, const MetadataLine& metadata);
  void OnSample(SampleLine& sample);
  void AddSample(Block& block, SampleLine& sample, std::string_view suffix);
  // A new block for the family base, the current one closed.
  Block& Open(const std::string& base);
  void Close();
  void DropLine(const char* kind, const std::string& why);
  std::string Clash(const Family& family) const;

  const PrometheusOptions& options_;
  const bool openmetrics_;
  Parsed& out_;
  size_t number_ = 0;
  bool ended_ = false;  // after "# EOF"
  uint64_t timestamps_ = 0;
  uint64_t created_ = 0;
  std::optional<Block> block_;
  std::unordered_set<std::string> seen_;     // blocks read
  std::unordered_set<std::string> claimed_;  // sample names of kept families
};

void Parser::DropLine(const char* kind, const std::string& why) {
  ++(std::string_view(kind) == "parse" ? out_.parse : out_.duplicate);
  out_.Note("line " + std::to_string(number_) + " dropped: " + why);
}

void Parser::Line(std::string_view line) {
  ++number_;
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  if (line.empty()) return;
  if (ended_) return DropLine("parse", "after # EOF");
  for (const char c : line) {
    if (static_cast<unsigned char>(c) < 0x80) continue;
    if (ValidUtf8(line) != line) return DropLine("parse", "invalid UTF-8");
    break;
  }
  if (openmetrics_ && line == "# EOF") {
    ended_ = true;
    return;
  }
  if (line.front() == '#') {
    MetadataLine metadata;
    const std::string error = LexMetadata(line, openmetrics_, &metadata);
    if (!error.empty()) return DropLine("parse", error);
    if (!metadata.keyword.empty()) OnMetadata(metadata);
    return;
  }
  SampleLine sample;
  const std::string error = LexSample(line, openmetrics_, &sample);
  if (!error.empty()) return DropLine("parse", error);
  OnSample(sample);
}

Block& Parser::Open(const std::string& base) {
  Close();
  Block& block = block_.emplace();
  block.base = base;
  if (!seen_.insert(base).second) {
    block.drop = "family " + base + " printed twice";
    block.drop_kind = "duplicate";
  }
  return block;
}

void Parser::OnMetadata(const MetadataLine& metadata) {
  Block& block = block_.has_value() && block_->base == metadata.name
                     ? *block_
                     : Open(metadata.name);
  if (!block.drop.empty()) return;
  if (!block.family.samples.empty()) {
    return DropLine("parse", "# " + metadata.keyword + " " + metadata.name +
                                 " after its samples");
  }
  SetMetadata(block, metadata);
}

void Parser::SetMetadata(Block& block, const MetadataLine& metadata) {
  const std::string& keyword = metadata.keyword;
  bool& done = keyword == "HELP"   ? block.helped
               : keyword == "TYPE" ? block.typed
                                   : block.has_unit;
  if (done) return DropLine("parse", "second # " + keyword + " " + block.base);
  done = true;
  if (keyword == "HELP") {
    block.family.help = metadata.text;
  } else if (keyword == "UNIT") {
    const std::string before = block.base.ends_with(kTotal)
        ? block.base.substr(0, block.base.size() - kTotal.size()) : block.base;
    if (!IsMetricName(metadata.text) || !before.ends_with("_" + metadata.text)) {
      block.drop = "unit '" + metadata.text + "' is not the suffix of " + block.base;
      return;
    }
    block.family.unit = metadata.text;
  } else {
    for (const TypeName& type : kTypes) {
      if (type.name == metadata.text && (openmetrics_ ? type.openmetrics : type.text)) {
        block.type = type.type;
        return;
      }
    }
    block.drop = "unknown type '" + metadata.text + "' of " + block.base;
  }
}

void Parser::OnSample(SampleLine& sample) {
  std::optional<std::string_view> suffix;
  if (block_.has_value()) {
    suffix = SuffixOf(*block_, sample.name);
    if (!suffix && sample.name == block_->base) {
      return DropLine("parse", "sample " + std::string(sample.name) +
                                   " does not fit its type");
    }
  }
  Block& block = suffix && block_.has_value() ? *block_
                                              : Open(std::string(sample.name));
  if (!block.drop.empty()) return;
  const std::string_view found = suffix.value_or("");
  if (found == "_created") {
    ++created_;
    return;
  }
  AddSample(block, sample, found);
}

void Parser::AddSample(Block& block, SampleLine& sample,
                       std::string_view suffix) {
  const std::string problem = TypeProblem(block, suffix, sample.labels);
  if (!problem.empty()) return DropLine("parse", problem);
  for (const auto& label : options_.labels) {
    for (const auto& own : sample.labels) {
      if (own.first == label.first) {
        return DropLine("parse", "label " + label.first + " is the collector's");
      }
    }
    sample.labels.push_back(label);
  }
  // A counter's _total and an info's _info are the renderer's to add.
  const bool kept = block.type == MetricType::kHistogram ||
                    block.type == MetricType::kSummary;
  if (!kept) suffix = "";
  if (block.series.Seen(block.family.samples, sample.labels, suffix)) {
    return DropLine("duplicate", "series " + std::string(sample.name) + " seen before");
  }
  timestamps_ += sample.timestamp ? 1 : 0;
  block.family.samples.push_back({std::move(sample.labels), sample.value,
                                  std::string(suffix)});
}

std::string Parser::Clash(const Family& family) const {
  if (!IsMetricName(family.name)) return "invalid family name " + family.name;
  if (family.name.starts_with("fetchlet_") || family.name.starts_with("process_")) {
    return "family " + family.name + " is the program's own";
  }
  for (const std::string& name : PrintedNames(family)) {
    if (claimed_.contains(name)) {
      return "family " + family.name + " clashes with another's " + name;
    }
  }
  return "";
}

void Parser::Close() {
  if (!block_) return;
  Block block = std::move(*block_);
  block_.reset();
  if (block.drop.empty() && block.family.samples.empty()) return;
  Family& family = block.family;
  family.type = block.type;
  family.name = options_.prefix + block.base;
  if (family.type == MetricType::kCounter && !family.name.ends_with(kTotal)) {
    family.name.append(kTotal);
  }
  if (block.drop.empty()) {
    block.drop = Clash(family);
    block.drop_kind = "duplicate";
  }
  if (!block.drop.empty()) {
    ++(std::string_view(block.drop_kind) == "parse" ? out_.parse : out_.duplicate);
    out_.Note(block.drop + ": family dropped");
    return;
  }
  if (family.type == MetricType::kStateset) {  // its label is named like it
    for (Sample& sample : family.samples) {
      for (auto& label : sample.labels) {
        if (label.first == block.base) label.first = family.name;
      }
    }
  }
  if (family.help.empty()) family.help = "Read from the command's output.";
  for (std::string& name : PrintedNames(family)) claimed_.insert(std::move(name));
  out_.families.push_back(std::move(family));
}

void Parser::Finish() {
  Close();
  if (timestamps_ > 0) {
    out_.Note(std::to_string(timestamps_) +
              " timestamps dropped: a sample's time is the scrape's");
  }
  if (created_ > 0) out_.Note(std::to_string(created_) + " _created samples dropped");
  out_.FinishNotes();
}

// OpenMetrics text ends in a line "# EOF" (lines after it are errors); the
// 0.0.4 format has no end marker.
bool IsOpenMetrics(std::string_view text) {
  for (size_t at = text.find("# EOF"); at != std::string_view::npos;
       at = text.find("# EOF", at + 1)) {
    const std::string_view after = text.substr(at + 5);
    if ((at == 0 || text[at - 1] == '\n') &&
        (after.empty() || after.front() == '\n' || after.front() == '\r')) {
      return true;
    }
  }
  return false;
}

}  // namespace

Parsed ParsePrometheus(std::string_view text, const PrometheusOptions& options) {
  Parsed parsed;
  Parser parser(options, IsOpenMetrics(text), &parsed);
  while (!text.empty()) {
    const size_t end = text.find('\n');
    parser.Line(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  parser.Finish();
  return parsed;
}

}  // namespace fetchlet::serve
