// SyncManager, its result records and the registry, as seen from Python.
#include "tidewright/sync/bindings/annotations.hpp"
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/bindings/lifetime.hpp"
#include "tidewright/sync/bindings/manifest_face.hpp"
#include "tidewright/sync/era/market.hpp"
#include "tidewright/sync/manager/cleanup.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/shared_ptr.h>
#include <nanobind/stl/string.h>

namespace tidewright::sync::bindings {

namespace {

// A plain `token` argument: a callable that returns its str(), taken once.
// The text stays a Python str, so that one the engine cannot use (a lone
// surrogate, a line break) is refused by the token check at the first
// request, like one a get_token returns, rather than here.
nb::object constant_token_provider(nb::handle token) {
  return nb::cpp_function([text = nb::str(token)] { return text; });
}

SyncManagerArgs make_args(nb::handle data_dir, nb::handle server_url, nb::handle get_token, nb::handle token,
                          double poll_interval_s, nb::handle runtime_freshness_guard, nb::handle market_id,
                          nb::handle sync_http_transport, nb::handle sync_http_chunk_bytes,
                          nb::handle sync_max_concurrency) {
  SyncManagerArgs args;
  args.data_dir = path_text(data_dir);
  // None is an empty URL, which the URL validator refuses with its own message.
  args.server_url = server_url.is_none() ? std::string() : to_text(server_url);
  nb::object token_fn = nb::borrow(get_token);
  if (token_fn.is_none() && !token.is_none()) {
    nb::str text = nb::str(token);  // once: str() of the caller's object may count or change
    token_fn = constant_token_provider(text);
    Py_ssize_t n = 0;
    if (const char* data = PyUnicode_AsUTF8AndSize(text.ptr(), &n)) {
      args.token_text = std::string(data, static_cast<std::size_t>(n));
    } else {
      PyErr_Clear();  // not valid Unicode: the provider refuses it, with its message
    }
  }
  args.get_token = make_ref(token_fn);
  if (!args.get_token) {
    // Keep None as a host object so that the callable check can name its type.
    args.get_token = make_ref(nb::module_::import_("builtins").attr("None"));
  }
  args.poll_interval_s = poll_interval_s;
  args.runtime_freshness_guard = make_ref(runtime_freshness_guard);
  args.market_id = json_or_null(market_id);
  args.market_id_repr = to_text(nb::repr(market_id));
  args.knobs.sync_http_transport = optional_json_or_text(sync_http_transport);
  args.knobs.sync_http_chunk_bytes = optional_json_or_text(sync_http_chunk_bytes);
  args.knobs.sync_max_concurrency = optional_json_or_text(sync_max_concurrency);
  return args;
}

}  // namespace

void shutdown_all_managers() { SyncManager::shutdown_all(); }

namespace {

// The face of the manager's manifest, the same one while the manager holds
// that manifest (kept in the manager's slot for it).
nb::object held_manifest(SyncManager& s) {
  ManifestPtr manifest;
  {
    nb::gil_scoped_release release;
    manifest = s.get_manifest();
  }
  if (!manifest) return nb::none();
  if (HostRef view = s.manifest_view(manifest)) return nb::borrow(ref_object(view));
  nb::object face = new_manifest_face(manifest);
  s.set_manifest_view(std::move(manifest), make_ref(face));
  return face;
}

std::vector<std::pair<std::string, json::object>> file_items(nb::handle files) {
  std::vector<std::pair<std::string, json::object>> out;
  json::value v = to_json(files);
  if (!v.is_object()) return out;
  for (auto& kv : v.get_object()) {
    out.emplace_back(std::string(kv.key()), kv.value().is_object() ? kv.value().get_object() : json::object());
  }
  return out;
}

}  // namespace

void bind_manager(nb::module_& m) {
  // The result records are dataclasses written in Python (value semantics,
  // defaults, tuple fields); this module hands them out under its own name.
  nb::module_ types = nb::module_::import_("tidewright._sync_types");
  m.attr("SyncResult") = types.attr("SyncResult");
  m.attr("VerifyResult") = types.attr("VerifyResult");

  m.attr("_DEFAULT_AGENT_MARKET_ID") = DEFAULT_AGENT_MARKET_ID;
  m.attr("_SYNC_HASH_CACHE_FILENAME") = SYNC_HASH_CACHE_FILENAME;
  m.attr("_SYNC_HASH_CACHE_VERSION") = SYNC_HASH_CACHE_VERSION;

  m.def(
      "_coerce_agent_market_id",
      [](nb::handle market_id) {
        return coerce_agent_market_id(json_or_null(market_id), to_text(nb::repr(market_id)));
      },
      nb::arg("market_id").none());
  m.def("_remove_manifest_tmp_file", &remove_manifest_tmp_file, kReleaseGil,
        nb::arg("data_dir"), nb::arg("file_path"));
  m.def(
      "_cleanup_sync_tmp_files",
      [](const std::string& data_dir, const std::optional<TextListArg>& preserve) {
        cleanup_sync_tmp_files(data_dir, preserve ? preserve->items : std::vector<std::string>());
      },
      kReleaseGil,
      nb::arg("data_dir"), nb::arg("preserve_relative_paths") = nb::none(),
      "Remove orphan sync temp files while preserving resumable current downloads.");
  m.def("_parse_era_directory_id", [](const std::string& name) { return parse_era_directory_id(name); },
        nb::arg("name"));

  nb::class_<SyncManager>(m, "SyncManager", "Keeps one local data directory in step with the Tidewright data service.",
                          nb::type_slots(engine_object_slots<SyncManager>))
      .def(nb::new_([](nb::handle data_dir, nb::handle server_url, nb::handle get_token, double poll_interval_s,
                       nb::handle runtime_freshness_guard, nb::handle token, nb::handle market_id,
                       nb::handle sync_http_transport, nb::handle sync_http_chunk_bytes,
                       nb::handle sync_max_concurrency) {
             SyncManagerArgs args =
                 make_args(data_dir, server_url, get_token, token, poll_interval_s, runtime_freshness_guard,
                           market_id, sync_http_transport, sync_http_chunk_bytes, sync_max_concurrency);
             std::shared_ptr<SyncManager> manager;
             {
               nb::gil_scoped_release release;
               manager = std::make_shared<SyncManager>(std::move(args));
             }
             remember_engine_object(manager);
             return manager;
           }),
           nb::arg("data_dir"), nb::arg("server_url").none(), nb::arg("get_token") = nb::none(),
           nb::arg("poll_interval_s") = SYNC_MANIFEST_POLL_INTERVAL_SECONDS,
           nb::arg("runtime_freshness_guard") = nb::none(), nb::arg("token") = nb::none(),
           nb::arg("market_id").none() = DEFAULT_AGENT_MARKET_ID, nb::arg("sync_http_transport") = nb::none(),
           nb::arg("sync_http_chunk_bytes") = nb::none(), nb::arg("sync_max_concurrency") = nb::none())
      .def_static(
          "get_or_create",
          [](nb::handle data_dir, nb::handle server_url, nb::handle get_token, double poll_interval_s,
             nb::handle runtime_freshness_guard, nb::handle market_id, nb::handle sync_http_transport,
             nb::handle sync_http_chunk_bytes, nb::handle sync_max_concurrency) {
            SyncManagerArgs args = make_args(data_dir, server_url, get_token, nb::none(), poll_interval_s,
                                             runtime_freshness_guard, market_id, sync_http_transport,
                                             sync_http_chunk_bytes, sync_max_concurrency);
            std::shared_ptr<SyncManager> manager;
            {
              nb::gil_scoped_release release;
              manager = SyncManager::get_or_create(std::move(args));
            }
            remember_engine_object(manager);
            return manager;
          },
          nb::arg("data_dir"), nb::arg("server_url").none(), nb::arg("get_token").none(),
          nb::arg("poll_interval_s") = SYNC_MANIFEST_POLL_INTERVAL_SECONDS,
          nb::arg("runtime_freshness_guard") = nb::none(), nb::arg("market_id").none() = DEFAULT_AGENT_MARKET_ID,
          nb::arg("sync_http_transport") = nb::none(), nb::arg("sync_http_chunk_bytes") = nb::none(),
          nb::arg("sync_max_concurrency") = nb::none(),
          nb::sig("def get_or_create(data_dir: str | os.PathLike[str], server_url: str, "
                  "get_token: collections.abc.Callable[[], str], poll_interval_s: float = 5.0, "
                  "runtime_freshness_guard: tidewright._sync_types.RuntimeFreshnessGuard | None = None, "
                  "market_id: int = 1, sync_http_transport: str | None = None, "
                  "sync_http_chunk_bytes: int | str | None = None, sync_max_concurrency: int | str | None = None"
                  ") -> SyncManager"),
          "Get existing or create new SyncManager for this data_dir.")
      .def_static(
          "_evict",
          [](const PathArg& data_dir) { SyncManager::evict(data_dir.text); }, kReleaseGil,
          nb::arg("data_dir"), "Remove instance from singleton registry (called on 1\u21920 release).")
      .def_prop_ro_static("_instances",
                          [](nb::handle) {
                            nb::dict d;
                            for (auto& [key, manager] : SyncManager::instances()) {
                              d[nb::str(key.c_str())] = nb::cast(manager);
                            }
                            return d;
                          })
      .def(
          "_set_sync_runtime_knobs",
          [](SyncManager& self, const KnobArg& sync_http_transport, const KnobArg& sync_http_chunk_bytes,
             const KnobArg& sync_max_concurrency) {
            self.set_sync_runtime_knobs({sync_http_transport.value, sync_http_chunk_bytes.value,
                                         sync_max_concurrency.value});
          },
          kReleaseGil,
          nb::kw_only(), nb::arg("sync_http_transport") = nb::none(), nb::arg("sync_http_chunk_bytes") = nb::none(),
          nb::arg("sync_max_concurrency") = nb::none())
      .def("sync", &SyncManager::sync, kReleaseGil, "Full sync: manifest, compare, download, verify, atomic write.\n\n"
              "Transient failures are retried without limit under the backoff policy: transient\n"
              "HTTP statuses, timeouts, and broken exchanges (a connection reset or closed\n"
              "without an answer, a response without a valid status line). A file whose bytes\n"
              "keep failing their SHA-256 is fetched again at most 3 times; the sync then raises\n"
              "IntegrityError after a \"checksum_repair_exhausted\" sync event (warning level).")
      .def("_sync_with_manifest_refresh", &SyncManager::sync_with_manifest_refresh, kReleaseGil,
           "Run sync, restarting if an in-flight manifest generation is stale.")
      .def("verify", &SyncManager::verify, kReleaseGil,
           "Verify local files against manifest existence, size, and checksum.\n\n"
           "Every file is hashed (the hash cache is not used). Files that look missing or corrupted "
           "are looked at again under the cross-process sync lock, so verify() may wait for a sync "
           "running in another process (which promotes files before it writes the manifest) and "
           "reports what that sync left. A manifest path that cannot be used safely (one reaching "
           "outside the data directory through a link, say) is reported in corrupted_files instead "
           "of raising.\n\n"
           "With no local manifest (nothing synced yet) nothing is checked: the result is valid with empty "
           "lists and has_manifest=False. Check has_manifest before taking valid as a clean bill.")
      .def("repair", [](SyncManager& s, const TextListArg& files) { return s.repair(files.items); }, kReleaseGil,
           nb::arg("corrupted_files"), "Re-download specified corrupted/missing files.\n\n"
              "Failures are retried as in sync(): without limit for transient statuses, timeouts,\n"
              "connection resets and bad status lines; at most 3 further fetches of a file whose\n"
              "SHA-256 keeps failing, then IntegrityError.")
      .def("needs_sync", &SyncManager::needs_sync, kReleaseGil,
           "Lightweight sync check using version plus local integrity state.\n\n"
           "A version probe without a manifest hash hint is trusted on its version, as sync()\n"
           "trusts it, and the local files decide: after a sync against an unchanged server\n"
           "the answer is False, hint or not.")
      .def("cleanup_old_eras", &SyncManager::cleanup_old_eras, kReleaseGil,
           nb::arg("keep_current") = true, "Delete non-current era directories, return bytes freed.")
      .def("_schedule_cleanup_old_eras", &SyncManager::schedule_cleanup_old_eras,
           kReleaseGil, nb::arg("keep_current") = true,
           "Run old-era cleanup on a daemon thread after foreground sync work.")
      .def("ensure_manifest_file_available",
           [](SyncManager& s, const std::string& file_path, const JsonArg& info) {
             return s.ensure_manifest_file_available(file_path, info.value);
           },
           kReleaseGil, nb::arg("file_path"), nb::arg("file_info"),
           "Ensure one manifest file exists locally through the sync boundary.")
      .def("_local_file_matches_manifest",
           [](SyncManager& s, const std::string& file_path, const std::string& local_path, const JsonArg& info,
              bool cache_allowed) {
             return s.local_file_matches_manifest(file_path, local_path, info.value, cache_allowed);
           },
           kReleaseGil,
           nb::arg("file_path"), nb::arg("local_path"), nb::arg("file_info"), nb::arg("cache_allowed") = true)
      .def("_download_file",
           [](SyncManager& s, const std::string& file_path, Shown<shown::JsonObject> info,
              Shown<shown::SyncResult> result, nb::handle retry_status_callback,
              std::optional<std::string> target_data_dir,
              const std::string& backoff_surface, bool retry_partial_transfer, bool retry_checksum_mismatch) {
             json::value v = to_json(info);
             SyncResult r = from_python_result(result);
             SyncManager::DownloadOptions options;
             options.target_data_dir = std::move(target_data_dir);
             options.backoff_surface = backoff_surface;
             options.retry_partial_transfer = retry_partial_transfer;
             options.retry_checksum_mismatch = retry_checksum_mismatch;
             if (!retry_status_callback.is_none()) {
               HostRef cb = make_ref(retry_status_callback);
               options.retry_status_callback = [cb](double wait) { host().call(cb, json::array{json::value(wait)}); };
             }
             {
               nb::gil_scoped_release release;
               s.download_file(DownloadJob::from_entry(file_path, v.is_object() ? v.get_object() : json::object()), r, options);
             }
             update_python_result(result, r);
           },
           nb::arg("file_path"), nb::arg("file_info"), nb::arg("result"), nb::arg("retry_status_callback") = nb::none(),
           nb::arg("target_data_dir") = nb::none(), nb::arg("backoff_surface") = "file_download",
           nb::arg("retry_partial_transfer") = true, nb::arg("retry_checksum_mismatch") = true,
           "Download a single file with checksum verification and atomic write.")
      .def("_download_files_parallel",
           [](SyncManager& s, Shown<shown::ManifestFiles> files, Shown<shown::SyncResult> result) {
             auto items = file_items(files);
             std::vector<DownloadJob> jobs;
             jobs.reserve(items.size());
             for (const auto& [path, entry] : items) jobs.push_back(DownloadJob::from_entry(path, entry));
             SyncResult r = from_python_result(result);
             {
               nb::gil_scoped_release release;
               s.download_files_parallel(jobs, r);
             }
             update_python_result(result, r);
           },
           nb::arg("files_to_download"), nb::arg("result"))
      .def("_download_vocabulary",
           [](SyncManager& s, ManifestArg face, std::optional<std::string> target) {
             return change_manifest(face, ManifestChange::kFiles,
                                    [&](Manifest& manifest) { return s.download_vocabulary(manifest, target); });
           },
           nb::arg("server_manifest"), nb::arg("target_data_dir") = nb::none(),
           "Download per-universe vocabularies if needed. Returns True if downloaded.")
      .def("_download_signals_index",
           [](SyncManager& s, ManifestArg face, std::optional<std::string> target, nb::handle result) {
             SyncResult r = from_python_result(result);
             bool downloaded = change_manifest(face, ManifestChange::kMembershipIfChanged, [&](Manifest& manifest) {
               return s.download_signals_index(manifest, r, target);
             });
             update_python_result(result, r);
             return downloaded;
           },
           nb::arg("server_manifest"), nb::arg("target_data_dir") = nb::none(), nb::arg("result") = nb::none())
      .def("_download_shuffle_seed",
           [](SyncManager& s, ManifestArg face, std::optional<std::string> target) {
             ManifestPtr manifest = engine_manifest(face);
             nb::gil_scoped_release release;
             return s.download_shuffle_seed(*manifest, target);
           },
           nb::arg("server_manifest"), nb::arg("target_data_dir") = nb::none())
      .def("_http_get", &SyncManager::http_get, kReleaseGil,
           nb::arg("url"), nb::arg("range_start") = 0, nb::arg("range_end") = -1, "HTTP GET with fresh token per request.")
      .def("_http_get_public", &SyncManager::http_get_public, kReleaseGil,
           nb::arg("url"), nb::arg("range_start") = 0, nb::arg("range_end") = -1,
           "HTTP GET for public manifest artifacts without bearer credentials.")
      .def(
          "set_progress_callback",
          [](SyncManager& s, Shown<shown::ProgressCallback> callback) {
            s.progress().set_callback(make_ref(callback));
          },
          nb::arg("callback").none(),
          "Call `callback(progress)` while files download (at most every 0.2 s, and at the start and end of a "
          "batch). `progress` is a dict: phase, done, files_total, files_done, bytes_total, bytes_done, "
          "elapsed_seconds. None removes the callback.")
      .def("_acquire_flock", &SyncManager::acquire_flock, kReleaseGil)
      .def("_release_flock", &SyncManager::release_flock, kReleaseGil)
      .def("_persist_hash_cache", [](SyncManager& s) { s.hash_cache().persist(); }, kReleaseGil)
      .def_prop_ro("_vocabulary", [](const SyncManager& s) -> nb::object {
             auto v = s.vocabulary();
             return v ? from_json(json::value(*v)) : nb::none();
           })
      .def("get_manifest", &held_manifest,
           nb::sig("def get_manifest(self) -> Manifest | None"),
           "Return current local Manifest or None. It is the same object for as long as the manager holds the same "
           "manifest; the manager itself works from its own copy (see Manifest).")
      .def("status", &SyncManager::status, kReleaseGil,
           "Return the current human-readable sync status, if any.")
      .def("consumer_count", &SyncManager::consumer_count, kReleaseGil)
      .def_prop_ro("_manifest", &held_manifest)
      .def_prop_ro("_status_message", &SyncManager::status)
      .def_prop_ro("_consumer_count", &SyncManager::consumer_count)
      .def_prop_ro("_data_dir", [](const SyncManager& s) { return s.data_dir(); })
      .def_prop_ro("_server_url", [](const SyncManager& s) { return s.server_url(); })
      .def_prop_ro("_market_id", [](const SyncManager& s) { return s.market_id(); })
      .def_prop_ro("_poll_interval", [](const SyncManager& s) { return s.poll_interval(); })
      .def_prop_ro("_sync_http_transport", &SyncManager::sync_http_transport)
      .def_prop_ro("_sync_http_chunk_bytes", &SyncManager::sync_http_chunk_bytes)
      .def_prop_ro("_sync_max_concurrency", &SyncManager::sync_max_concurrency)
      .def_prop_ro("_running", &SyncManager::running)
      .def_prop_ro("_in_transition", &SyncManager::in_transition)
      .def_prop_ro("_consumer_count_path", [](const SyncManager& s) { return s.consumer_count_path(); })
      .def_prop_ro("_flock_path", [](const SyncManager& s) { return s.flock_path(); })
      .def_prop_ro("_hash_cache_path", [](SyncManager& s) { return s.hash_cache().path(); })
      .def_prop_ro("_hash_cache", [](SyncManager& s) { return from_json(json::value(s.hash_cache().entries())); })
      .def_prop_rw(
          "_get_token", [](const SyncManager& s) { return nb::borrow(ref_object(s.get_token_fn())); },
          [](SyncManager& s, nb::handle fn) { s.set_get_token(make_ref(fn)); }, nb::arg("value").none())
      .def_prop_rw(
          "runtime_freshness_guard",
          [](const SyncManager& s) -> ShownObject<shown::OptionalFreshnessGuard> {
            return nb::borrow(ref_object(s.runtime_freshness_guard()));
          },
          [](SyncManager& s, Shown<shown::FreshnessGuard> guard) {
            s.set_runtime_freshness_guard(make_ref(guard));
          },
          nb::arg("value").none());
}

}  // namespace tidewright::sync::bindings
