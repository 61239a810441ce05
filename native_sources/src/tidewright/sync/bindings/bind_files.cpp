#include "tidewright/sync/bindings/bindings.hpp"

namespace tidewright::sync::bindings {

void bind_files(nb::module_& m) { (void)m; }

}  // namespace tidewright::sync::bindings
