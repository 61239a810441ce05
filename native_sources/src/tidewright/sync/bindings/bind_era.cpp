// The era-current endpoint helpers and EraThread, as seen from Python.
#include "tidewright/sync/bindings/annotations.hpp"
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/bindings/lifetime.hpp"
#include "tidewright/sync/bindings/python_host.hpp"
#include "tidewright/sync/era/era_current.hpp"
#include "tidewright/sync/era/era_thread.hpp"
#include "tidewright/sync/era/market.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/bearer_token.hpp"

#include <nanobind/stl/shared_ptr.h>
#include <nanobind/stl/string.h>

namespace tidewright::sync::bindings {

namespace {


nb::handle g_module;

constexpr const char* kEraThreadDoc = R"DOC(Polls the market-scoped era-current endpoint and triggers era transitions.

sync_manager is a SyncManager, or any object with its interface: the thread
calls its trigger_era_transition(new_era_number=..., kill_searches_fn=...,
restart_searches_fn=...) and reads the era it holds from get_manifest() (or
its _manifest attribute) when started.

is_alive() stays true for a worker that outlived stop()'s wait of 10
seconds, until it ends.)DOC";

// A native kill/restart function as a host callable (the GIL is released
// while it runs).
nb::object searches_fn_object(const SearchesFn& fn) {
  if (fn.host_ref()) return nb::borrow(ref_object(fn.host_ref()));
  if (!fn.native_fn()) return nb::none();
  std::function<void()> native = fn.native_fn();
  return nb::cpp_function([native] {
    nb::gil_scoped_release release;
    native();
  });
}

// A sync manager of the host's own making: any object with the manager's
// interface (trigger_era_transition(new_era_number=, kill_searches_fn=,
// restart_searches_fn=), and get_manifest() or a _manifest attribute for the
// era it holds). The era thread owns the object; this refers to it weakly.
class HostTransitionTarget : public EraTransitionTarget {
 public:
  explicit HostTransitionTarget(const HostRef& manager) : manager_(manager) {}

  std::optional<json::value> held_manifest_era_number() const override {
    HostRef manager = manager_.lock();
    if (!manager || host().shutting_down()) return std::nullopt;
    nb::gil_scoped_acquire gil;
    show_engine_thread_name();
    try {
      nb::handle object = ref_object(manager);
      nb::object manifest = nb::hasattr(object, "get_manifest") ? object.attr("get_manifest")()
                                                                 : nb::getattr(object, "_manifest", nb::none());
      if (manifest.is_none()) return std::nullopt;
      return to_json_or_text(manifest.attr("era_number"));
    } catch (nb::python_error& e) {
      e.restore();
      throw_host_error_from_python();
    }
  }

  void trigger_era_transition(std::int64_t new_era_number, const SearchesFn& kill_searches_fn,
                              const SearchesFn& restart_searches_fn) override {
    HostRef manager = manager_.lock();
    if (!manager) throw StateError("the sync manager is gone");
    if (host().shutting_down()) throw StateError("interpreter is shutting down");
    nb::gil_scoped_acquire gil;
    show_engine_thread_name();
    try {
      ref_object(manager).attr("trigger_era_transition")(
          nb::arg("new_era_number") = new_era_number, nb::arg("kill_searches_fn") = searches_fn_object(kill_searches_fn),
          nb::arg("restart_searches_fn") = searches_fn_object(restart_searches_fn));
    } catch (nb::python_error& e) {
      e.restore();
      throw_host_error_from_python();
    }
  }

 private:
  const std::weak_ptr<void> manager_;
};

}  // namespace

void bind_era(nb::module_& m) {
  g_module = m;
  adopt_names(m, nb::module_::import_("tidewright._sync_era_views"));

  m.def(
      "_market_era_current_url",
      [](Shown<shown::Str> server_url, nb::handle market_id) {
        std::int64_t market = coerce_agent_market_id(json_or_null(market_id), to_text(nb::repr(market_id)));
        return market_era_current_url(to_text(server_url), market);
      },
      nb::arg("server_url"), nb::arg("market_id").none());

  m.def(
      "_normalize_era_current_response",
      [](Shown<shown::JsonObject> data) -> nb::object {
        if (!nb::isinstance<nb::dict>(data)) return nb::dict();
        if (!nb::borrow<nb::dict>(data).contains("era")) return nb::borrow(data);  // the flat shape, as it came
        return from_json(normalize_era_current_response(to_json(data)));
      },
      nb::arg("data").none(), "Normalize canonical market-scoped era-current wrapper into an era config dict.");

  nb::class_<EraThread>(m, "EraThread", kEraThreadDoc, nb::type_slots(engine_object_slots<EraThread>))
      .def(nb::new_([](nb::handle server_url, nb::handle get_token, nb::handle sync_manager,
                       double era_poll_interval_s, nb::handle kill_searches_fn, nb::handle restart_searches_fn,
                       nb::handle market_id) {
             EraThreadOptions options;
             std::shared_ptr<SyncManager> manager;
             if (nb::try_cast(sync_manager, manager) && manager) {
               options.sync_manager = manager;
             } else if (!sync_manager.is_none() && nb::hasattr(sync_manager, "trigger_era_transition")) {
               options.sync_manager_ref = make_ref(sync_manager);
               options.sync_manager = std::make_shared<HostTransitionTarget>(options.sync_manager_ref);
             } else {
               throw TypeError("sync_manager must be a SyncManager or have its trigger_era_transition(), got " +
                               to_text(nb::repr(sync_manager.type())));
             }
             options.server_url = server_url.is_none() ? std::string() : to_text(server_url);
             options.get_token_ref = make_ref(get_token);
             options.era_poll_interval_s = era_poll_interval_s;
             options.kill_searches_fn = searches_fn_from(kill_searches_fn);
             options.restart_searches_fn = searches_fn_from(restart_searches_fn);
             options.market_id = json_or_null(market_id);
             options.market_id_repr = to_text(nb::repr(market_id));
             std::shared_ptr<EraThread> thread;
             {
               nb::gil_scoped_release release;
               thread = std::make_shared<EraThread>(std::move(options));
             }
             remember_engine_object(thread);
             return thread;
           }),
           nb::arg("server_url").none(), nb::arg("get_token").none(), nb::arg("sync_manager").none(),
           nb::arg("era_poll_interval_s") = ERA_POLL_INTERVAL_SECONDS, nb::arg("kill_searches_fn").none() = nb::none(),
           nb::arg("restart_searches_fn").none() = nb::none(),
           nb::arg("market_id").none() = DEFAULT_AGENT_MARKET_ID)
      .def("start", &EraThread::start, nb::call_guard<nb::gil_scoped_release>())
      .def("stop", &EraThread::stop, nb::call_guard<nb::gil_scoped_release>())
      .def("is_alive", &EraThread::is_alive, nb::call_guard<nb::gil_scoped_release>())
      .def("_poll_once", &EraThread::poll_once, nb::call_guard<nb::gil_scoped_release>(),
           "Single poll of the market-scoped era-current endpoint.")
      .def(
          "_mark_transition_failed",
          [](EraThread& self, const std::string& context, nb::handle exc) {
            std::string text = to_text(exc);
            nb::gil_scoped_release release;
            self.mark_transition_failed(context, text);
          },
          nb::arg("context"), nb::arg("exc").none())
      .def("_clear_transition_failed", &EraThread::clear_transition_failed, nb::call_guard<nb::gil_scoped_release>())
      .def_prop_ro("_server_url", [](const EraThread& t) { return t.server_url(); })
      .def_prop_ro("_market_id", [](const EraThread& t) { return t.market_id(); })
      .def_prop_ro("_poll_interval", [](const EraThread& t) { return t.poll_interval(); })
      .def_prop_ro("_get_token",
                   [](const EraThread& t) -> nb::object {
                     if (HostRef ref = t.get_token_ref()) return nb::borrow(ref_object(ref));
                     std::function<std::string()> fn = t.get_token();
                     if (!fn) return nb::none();
                     return nb::cpp_function([fn] {
                       nb::gil_scoped_release release;
                       return fn();
                     });
                   })
      .def_prop_ro("_sync_manager",
                   [](const EraThread& t) -> nb::object {
                     if (HostRef ref = t.sync_manager_ref()) return nb::borrow(ref_object(ref));
                     return nb::cast(std::dynamic_pointer_cast<SyncManager>(t.sync_manager()));
                   })
      .def_prop_ro("_kill_searches_fn", [](const EraThread& t) { return searches_fn_object(t.kill_searches_fn()); })
      .def_prop_ro("_restart_searches_fn",
                   [](const EraThread& t) { return searches_fn_object(t.restart_searches_fn()); })
      .def_prop_ro("_thread",
                   [](nb::handle self) -> nb::object {
                     if (!nb::cast<EraThread&>(self).state().has_thread) return nb::none();
                     return g_module.attr("_EraWorkerView")(self);
                   })
      .def_prop_ro("_stop_event", [](nb::handle self) { return g_module.attr("_EraStopView")(self); })
      .def_prop_ro("_stop_requested", &EraThread::stop_requested)
      .def_prop_ro("_started", [](const EraThread& t) { return t.state().started; })
      .def_prop_rw(
          "_last_known_era_number", [](const EraThread& t) { return from_json(t.state().last_known_era_number); },
          [](EraThread& t, nb::handle value) { t.set_last_known_era_number(value.is_none() ? json::value(nullptr) : to_json(value)); },
          nb::arg("value").none())
      .def_prop_ro("_last_known_state", [](const EraThread& t) { return from_json(t.state().last_known_state); })
      .def_prop_rw(
          "_in_closing", [](const EraThread& t) { return t.state().in_closing; },
          [](EraThread& t, bool value) { t.set_in_closing(value); })
      .def_prop_ro("_transition_failed", [](const EraThread& t) { return t.state().transition_failed; })
      .def_prop_ro("_last_transition_error", [](const EraThread& t) -> nb::object {
        auto error = t.state().last_transition_error;
        return error ? nb::object(nb::str(error->c_str(), error->size())) : nb::none();
      });
}

}  // namespace tidewright::sync::bindings
