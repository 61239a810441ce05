#include "tidewright/sync/bindings/bindings.hpp"

namespace tidewright::sync::bindings {

void bind_manager(nb::module_& m) { (void)m; }

void shutdown_all_managers() {}

}  // namespace tidewright::sync::bindings
