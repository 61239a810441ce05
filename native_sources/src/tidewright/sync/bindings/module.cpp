// The tidewright.sync extension module.
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/errors.hpp"
#include "tidewright/sync/bindings/lifetime.hpp"
#include "tidewright/sync/bindings/python_host.hpp"

#include <curl/curl.h>

#include <csignal>
#include <memory>
#include <string_view>

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

namespace tidewright::sync::bindings {

void adopt_names(nb::module_& m, nb::handle part) {
  nb::object part_name = part.attr("__name__");
  nb::object own_name = m.attr("__name__");
  nb::object is_function = nb::module_::import_("inspect").attr("isfunction");
  auto take = [&](nb::handle value) {
    bool defined_there = (PyType_Check(value.ptr()) || nb::cast<bool>(is_function(value))) &&
                         nb::getattr(value, "__module__", nb::none()).equal(part_name);
    if (defined_there) nb::setattr(value, "__module__", own_name);
    return defined_there;
  };
  for (auto item : nb::borrow<nb::dict>(part.attr("__dict__"))) {
    if (std::string_view(nb::str(item.first).c_str()).starts_with("__")) continue;  // the part's own module attributes
    if (take(item.second) && PyType_Check(item.second.ptr())) {
      for (nb::handle member : item.second.attr("__dict__").attr("values")()) take(member);
    }
    nb::setattr(m, item.first, item.second);
  }
}

}  // namespace tidewright::sync::bindings

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
