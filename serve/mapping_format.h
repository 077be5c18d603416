// An os collector's output through its format instead of a regex.
#ifndef FETCHLET_SERVE_MAPPING_FORMAT_H_
#define FETCHLET_SERVE_MAPPING_FORMAT_H_

#include <string_view>

#include "serve/config.h"
#include "serve/mapping.h"

namespace fetchlet::serve {

// text read as collector.format says; lines and items dropped count as
// dropped rows, a plug-in's first line becomes the first note.
void MapFormat(const CollectorConfig& collector, std::string_view text,
               Mapped* mapped);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_MAPPING_FORMAT_H_
