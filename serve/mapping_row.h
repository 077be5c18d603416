// One row of cells through a collector's families.
#ifndef FETCHLET_SERVE_MAPPING_ROW_H_
#define FETCHLET_SERVE_MAPPING_ROW_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "serve/config.h"
#include "serve/model.h"

namespace fetchlet::serve {

// A row's cells, borrowed from the result or the matched text; nullopt
// where there is no text (a null cell, an unmatched group, a nested table).
using Cells = std::vector<std::optional<std::string_view>>;

// The number a cell stands for under value, or "" in *error saying why not.
std::optional<double> CellValue(const ValueSpec& value,
                                std::string_view cell, std::string* error);

// Adds the row's samples to families (one per metric, in order), or adds
// nothing and returns why the row does not parse. names, when given, name
// the columns in that reason (a JSON row's pointers).
std::string MapRow(const std::vector<MetricDefinition>& metrics, const Cells& cells,
                   Families* families,
                   const std::vector<std::string>* names = nullptr);

// Empty families of metrics, ready for rows.
Families EmptyFamilies(const std::vector<MetricDefinition>& metrics);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_MAPPING_ROW_H_
