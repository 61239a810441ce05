// SyncManager's consumer lifecycle, threads, era callbacks and era
// transitions, as seen from Python (added to the class bind_manager made).
#include "tidewright/sync/bindings/annotations.hpp"
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/era/era_thread.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/shared_ptr.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

namespace tidewright::sync::bindings {

namespace {


template <typename F, typename... Extra>
void def_method(nb::handle cls, const char* name, F&& f, const Extra&... extra) {
  nb::cpp_function_def(std::forward<F>(f), nb::scope(cls), nb::name(name), nb::is_method(), extra...);
}

template <typename F>
void def_property(nb::handle cls, const char* name, F&& getter) {
  cls.attr(name) = nb::module_::import_("builtins").attr("property")(nb::cpp_function(std::forward<F>(getter)));
}

}  // namespace

void bind_lifecycle(nb::module_& m) {
  adopt_names(m, nb::module_::import_("tidewright._sync_transition"));

  nb::handle cls = nb::type<SyncManager>();

  def_method(cls, "acquire", &SyncManager::acquire, kReleaseGil, "Register as consumer, start threads if first.");
  def_method(cls, "release", &SyncManager::release, kReleaseGil,
             "Deregister as consumer, stop threads if last.\n\n"
             "The last release stops the manager as stop() does, cancelling a running sync or era "
             "transition. A transition that is still running afterwards (release() called from an era "
             "callback on the transition's own thread, say) keeps the instance registered, so that "
             "get_or_create() hands out no second manager for the directory; it leaves the registry when "
             "that transition returns.");
  def_method(cls, "start", &SyncManager::start, kReleaseGil, "Start background sync polling loop.");
  def_method(cls, "stop", &SyncManager::stop, kReleaseGil,
             "Stop background sync polling loop.\n\n"
             "Does nothing unless the manager is running (start() or acquire()). Otherwise it does not "
             "wait for a running sync or era transition to finish: it cancels them and returns once they "
             "have ended, which is prompt. The cancelled call raises "
             "tidewright.sync_backoff.SyncBackoffCancelled. A cancelled sync keeps its partial downloads "
             "as staging files (\"<path>.tmp\") and the next sync resumes them where they stopped. A "
             "cancelled transition leaves the data directory wholly in one era, the old one when it was "
             "cancelled before the switch, the new one after it, and its error names that era; searches it "
             "stopped are not restarted, and its staging directory is removed (the next transition downloads "
             "again what it had not finished).");
  def_method(cls, "_stop_internal", &SyncManager::stop_internal, kReleaseGil,
             "Internal stop implementation. Blocks until in-progress sync/transition completes.\n\n"
             "The in-progress sync or transition is cancelled first (see stop()), so the wait is short.");
  def_method(cls, "is_alive", &SyncManager::is_alive, kReleaseGil, "Health check returning thread responsiveness.");
  def_method(cls, "_poll_once", &SyncManager::poll_once, kReleaseGil,
             "Single poll cycle: check version, sync if needed, process repairs.");
  def_method(cls, "request_for_sync", &SyncManager::request_for_sync, kReleaseGil,
             "Cross-process sync trigger, returns file paths.");
  def_method(cls, "_get_found_file_paths", &SyncManager::get_found_file_paths, kReleaseGil,
             "Get all found signal and strategy PnL file paths, ordered newest first.");
  def_method(
      cls, "report_corruption",
      [](SyncManager& s, Shown<shown::PathLike> file_path) {
        std::string path = file_path.is_none() ? to_text(file_path)
                                               : to_text(nb::module_::import_("os").attr("fspath")(file_path));
        nb::gil_scoped_release release;
        s.report_corruption(path);
      },
      nb::arg("file_path").none(), "Cross-process corruption report, queues async repair.");

  // Both take any object, None included, as they always have; the signatures
  // name what callers are meant to pass.
  def_method(
      cls, "register_era_callback",
      [](SyncManager& s, const HostCallableArg& callback) { s.register_era_callback(callback.ref); }, kReleaseGil,
      nb::arg("callback").none(),
      "Register callback(event_type, era_number) for era transitions (duplicates are kept).\n\n"
      "Event types: \"kill\" (stop work before a transition, with the era held so far), "
      "\"restart\" (resume after it, with the new era) and \"abort\" (reserved for callers: a "
      "transition was given up, resume). Under feature rotation a transition also tells running "
      "searches their new active files, before \"restart\": callbacks that accept a third positional "
      "argument are called as callback(\"rotation_refresh\", era_number, payload), the others are "
      "not called for it. payload is a dict with \"era_number\", \"previous_era_number\" (None "
      "without a previous era), \"active_relative_paths\" (every manifest path kept locally in the "
      "new era, sorted), \"added_relative_paths\" (active now, not before) and "
      "\"removed_relative_paths\" (active before, not now). It is sent when rotation applies to the "
      "old era or the new one. Callbacks run on the transition's thread; an exception is logged and "
      "the other callbacks still run.",
      nb::sig("def register_era_callback(self, callback: collections.abc.Callable[..., object]) -> None"));
  def_method(
      cls, "unregister_era_callback",
      [](SyncManager& s, nb::handle callback) {
        // The first registration equal to `callback` as the host compares
        // (bound methods are new objects on every access), removed by identity.
        std::vector<HostRef> registered;
        {
          nb::gil_scoped_release release;
          registered = s.era_callbacks();
        }
        for (const HostRef& ref : registered) {
          if (ref_object(ref).equal(callback)) {
            nb::gil_scoped_release release;
            s.unregister_era_callback(ref);
            break;
          }
        }
        nb::gil_scoped_release release;
        registered.clear();
      },
      nb::arg("callback").none(),
      nb::sig("def unregister_era_callback(self, callback: collections.abc.Callable[[str, int], object]) -> None"));
  def_method(cls, "_notify_era_callbacks",
             nb::overload_cast<const std::string&, std::int64_t>(&SyncManager::notify_era_callbacks), kReleaseGil,
             nb::arg("event_type"),
             nb::arg("era_number"));
  def_property(cls, "_era_callbacks", [](SyncManager& s) {
    std::vector<HostRef> registered;
    {
      nb::gil_scoped_release release;
      registered = s.era_callbacks();
    }
    nb::list out;
    for (const HostRef& ref : registered) out.append(ref_object(ref));
    return out;
  });

  def_method(
      cls, "trigger_era_transition",
      &SyncManager::trigger_era_transition, kReleaseGil,
      nb::arg("new_era_number"), nb::arg("kill_searches_fn").none() = nb::none(),
      nb::arg("restart_searches_fn").none() = nb::none(),
      "Handle era transition: kill, update, re-auth, sync, restart.\n\n"
      "Raises DiskSpaceError before anything is staged or requested when the file system cannot hold "
      "the new era beside the old one. A stop request (stop() or release() of a running manager, the "
      "era thread's stop, or the caller's backoff context) cancels it with SyncBackoffCancelled, whose "
      "message names the era the data directory is wholly in; the searches it stopped are not "
      "restarted.");
  def_method(
      cls, "_fetch_active_era_for_transition",
      &SyncManager::fetch_active_era_for_transition, kReleaseGil,
      nb::arg("allow_closing") = false, "Fetch market-scoped era-current for transition gates.");
  def_method(
      cls, "_confirm_active_era",
      &SyncManager::confirm_active_era, kReleaseGil,
      nb::arg("expected_era_number"), nb::arg("allow_closing") = false,
      "Require market-scoped era-current to match the requested active era.");
  def_method(cls, "_check_transition_superseded", &SyncManager::check_transition_superseded, kReleaseGil,
             nb::arg("expected_era_number"), nb::arg("allow_closing") = false,
             "Return superseding active era_number, or raise on an invalid active state.");

  def_property(cls, "_era_thread", [](SyncManager& s) { return s.era_thread(); });
  def_property(cls, "_consumer_lifecycle_started", [](SyncManager& s) { return s.consumer_lifecycle_started(); });
}

}  // namespace tidewright::sync::bindings
