// The tidewright.sync extension module.
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/errors.hpp"
#include "tidewright/sync/bindings/lifetime.hpp"
#include "tidewright/sync/bindings/python_host.hpp"

#include <curl/curl.h>

#include <csignal>
#include <memory>

namespace nb = nanobind;
using namespace tidewright::sync;

namespace {

void at_exit() {
  // Stop every manager (joining its threads) while the interpreter is still
  // whole; afterwards no core thread may call back into it.
  {
    nb::gil_scoped_release release;
    bindings::shutdown_all_managers();
  }
  // Then let go of every host object the engine holds, while releasing one
  // still releases it: the interpreter then tears down the module with no
  // Python object kept alive from C++.
  bindings::release_engine_host_objects();
  bindings::PythonHost::mark_interpreter_exiting();
}

}  // namespace

NB_MODULE(sync, m) {
  m.doc() = "Sync subcomponent \u2014 data synchronization, era management, file integrity.";

  curl_global_init(CURL_GLOBAL_DEFAULT);
  std::signal(SIGPIPE, SIG_IGN);
  set_host(std::make_shared<bindings::PythonHost>());

  nb::register_exception_translator([](const std::exception_ptr& p, void*) {
    try {
      std::rethrow_exception(p);
    } catch (const Error& e) {
      bindings::set_python_error(e);
    }
  });

  bindings::bind_errors(m);
  bindings::bind_paths(m);
  bindings::bind_sanitize(m);
  bindings::bind_transport_settings(m);
  bindings::bind_files(m);
  bindings::bind_manifest(m);
  bindings::bind_manager(m);
  bindings::bind_artifacts(m);
  bindings::bind_http(m);
  bindings::bind_events(m);
  bindings::bind_rotation(m);
  bindings::bind_era(m);        // after bind_manager: EraThread refers to SyncManager
  bindings::bind_lifecycle(m);  // adds to SyncManager; returns EraThread

  nb::module_::import_("atexit").attr("register")(nb::cpp_function(&at_exit));
}
