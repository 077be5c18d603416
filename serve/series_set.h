// The series of one family read so far, to find one printed twice without
// a key string per series: a hash of its labels (in any order) and suffix
// in an open-addressed table, each match checked against the sample it
// stands for.
#ifndef FETCHLET_SERVE_SERIES_SET_H_
#define FETCHLET_SERVE_SERIES_SET_H_

#include <cstdint>
#include <string_view>
#include <vector>

#include "serve/model.h"

namespace fetchlet::serve {

class SeriesSet {
 public:
  // Whether samples holds a series of labels and suffix already; when not,
  // it is remembered as the one samples will hold next, at samples.size().
  bool Seen(const std::vector<Sample>& samples, const Labels& labels,
            std::string_view suffix);

 private:
  void Grow();

  std::vector<uint32_t> slots_;  // a sample's index + 1; 0: empty
  std::vector<uint64_t> hashes_;
  size_t used_ = 0;
};

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_SERIES_SET_H_
