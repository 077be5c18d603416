// Owners of the host's handles: a context, a property list, a result and an
// exception each release themselves, on every path.
#ifndef FETCHLET_AGENT_HANDLES_H_
#define FETCHLET_AGENT_HANDLES_H_

#include <memory>
#include <span>
#include <string>
#include <utility>

#include "qve/embedded.h"

namespace fetchlet::agent {

struct ContextRelease {
  void operator()(qvefet_Context* context) const {
    qvehost::DeleteContext(context);
  }
};
struct PropertyListRelease {
  void operator()(qvlnv_NVList* list) const {
    qvehost::DeletePropertyList(list);
  }
};
struct ResultRelease {
  void operator()(qvedrmr_MetricResult* result) const {
    qvedrmr_MetricResult_delete(result);
  }
};
struct ExceptionRelease {
  void operator()(qveue_Exception* exception) const {
    qveue_Exception_delete(exception);
  }
};

using Context = std::unique_ptr<qvefet_Context, ContextRelease>;
using PropertyList = std::unique_ptr<qvlnv_NVList, PropertyListRelease>;
using Result = std::unique_ptr<qvedrmr_MetricResult, ResultRelease>;
using Exception = std::unique_ptr<qveue_Exception, ExceptionRelease>;

using Property = std::pair<std::string, std::string>;

// A list of properties in their order; a later setting of a name replaces
// the earlier value in its place.
PropertyList NewPropertyList(std::span<const Property> properties);

}  // namespace fetchlet::agent

#endif  // FETCHLET_AGENT_HANDLES_H_
