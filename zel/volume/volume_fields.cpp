#include <tbb/task.h>
#include <tbb/task_group.h>

#include "zel/volume/volume_fields_impl.h"

namespace zel::detail {

void cancelEnclosingGroup() {
    if (auto* const context = tbb::task::current_context()) context->cancel_group_execution();
}

}  // namespace zel::detail
