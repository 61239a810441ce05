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

nb::handle g_module;

std::optional<json::value> knob(nb::handle value) {
  if (value.is_none()) return std::nullopt;
  return to_json_or_text(value);
}

// A plain `token` argument: a callable that returns its str(), taken once.
// The text stays a Python str, so that one the engine cannot use (a lone
// surrogate, a line break) is refused by the token check at the first
// request, like one a get_token returns, rather than here.
nb::object constant_token_provider(nb::handle token) {
  return nb::cpp_function([text = nb::str(token)] { return text; });
}

std::string path_text(nb::handle value) {
  return to_text(nb::module_::import_("os").attr("fspath")(value));
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
  try {
    args.market_id = to_json(market_id);
  } catch (nb::python_error&) {
    args.market_id = nullptr;
  }
  args.market_id_repr = to_text(nb::repr(market_id));
  args.knobs.sync_http_transport = knob(sync_http_transport);
  args.knobs.sync_http_chunk_bytes = knob(sync_http_chunk_bytes);
  args.knobs.sync_max_concurrency = knob(sync_max_concurrency);
  return args;
}

nb::object tuple_of(const std::vector<std::string>& items) {
  nb::list l;
  for (const auto& s : items) l.append(nb::str(s.c_str(), s.size()));
  return nb::tuple(l);
}

nb::object list_of(const std::vector<std::string>& items) {
  nb::list l;
  for (const auto& s : items) l.append(nb::str(s.c_str(), s.size()));
  return l;
}

}  // namespace

ShownObject<shown::SyncResult> to_python(const SyncResult& r) {
  nb::dict kw;
  kw["features_downloaded"] = r.features_downloaded;
  kw["useful_signals_downloaded"] = r.useful_signals_downloaded;
  kw["bytes_downloaded"] = r.bytes_downloaded;
  kw["era_number"] = r.era_number;
  kw["t_signal_is"] = r.t_signal_is;
  kw["t_strategy_is"] = r.t_strategy_is;
  kw["n_instruments"] = r.n_instruments;
  kw["n_features"] = r.n_features;
  kw["n_useful_signals"] = r.n_useful_signals;
  kw["n_found_strategies"] = r.n_found_strategies;
  kw["pnl_column_count"] = r.pnl_column_count;
  kw["vocabulary_downloaded"] = r.vocabulary_downloaded;
  kw["shuffle_seed_downloaded"] = r.shuffle_seed_downloaded;
  kw["active_relative_paths"] = tuple_of(r.active_relative_paths);
  kw["skipped_relative_paths"] = tuple_of(r.skipped_relative_paths);
  kw["mandatory_relative_paths"] = tuple_of(r.mandatory_relative_paths);
  kw["found_pnl_paths_downloaded"] = tuple_of(r.found_pnl_paths_downloaded);
  kw["rejected_files"] = tuple_of(r.rejected_files);
  kw["rotation_seed"] = r.rotation_seed ? nb::object(nb::int_(*r.rotation_seed)) : nb::none();
  kw["feature_budget_bytes"] = r.feature_budget_bytes ? nb::object(nb::int_(*r.feature_budget_bytes)) : nb::none();
  return g_module.attr("SyncResult")(**kw);
}

// Reads a Python SyncResult (or None) into the core record.
SyncResult from_python_result(nb::handle r) {
  SyncResult out;
  if (r.is_none()) return out;
  auto i64 = [&](const char* name) { return nb::cast<std::int64_t>(r.attr(name)); };
  auto strings = [&](const char* name) {
    std::vector<std::string> v;
    for (nb::handle item : r.attr(name)) v.push_back(to_text(item));
    return v;
  };
  out.features_downloaded = i64("features_downloaded");
  out.useful_signals_downloaded = i64("useful_signals_downloaded");
  out.bytes_downloaded = i64("bytes_downloaded");
  out.era_number = i64("era_number");
  out.t_signal_is = i64("t_signal_is");
  out.t_strategy_is = i64("t_strategy_is");
  out.n_instruments = i64("n_instruments");
  out.n_features = i64("n_features");
  out.n_useful_signals = i64("n_useful_signals");
  out.n_found_strategies = i64("n_found_strategies");
  out.pnl_column_count = i64("pnl_column_count");
  out.vocabulary_downloaded = nb::cast<bool>(r.attr("vocabulary_downloaded"));
  out.shuffle_seed_downloaded = nb::cast<bool>(r.attr("shuffle_seed_downloaded"));
  out.active_relative_paths = strings("active_relative_paths");
  out.skipped_relative_paths = strings("skipped_relative_paths");
  out.mandatory_relative_paths = strings("mandatory_relative_paths");
  out.found_pnl_paths_downloaded = strings("found_pnl_paths_downloaded");
  out.rejected_files = strings("rejected_files");
  if (!r.attr("rotation_seed").is_none()) out.rotation_seed = i64("rotation_seed");
  if (!r.attr("feature_budget_bytes").is_none()) out.feature_budget_bytes = i64("feature_budget_bytes");
  return out;
}

// Writes the core record's fields back onto a Python SyncResult.
void update_python_result(nb::handle target, const SyncResult& r) {
  if (target.is_none()) return;
  nb::object fresh = to_python(r);
  for (nb::handle field : nb::module_::import_("dataclasses").attr("fields")(fresh)) {
    nb::object name = field.attr("name");
    nb::setattr(target, name, nb::getattr(fresh, name));
  }
}

ShownObject<shown::VerifyResult> to_python(const VerifyResult& r) {
  return g_module.attr("VerifyResult")(r.valid, list_of(r.corrupted_files), list_of(r.missing_files),
                                       nb::arg("has_manifest") = r.has_manifest);
}

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

nb::object http_triple(const HttpResponse& r) {
  nb::dict headers;
  for (const auto& [k, v] : r.headers.items) headers[nb::str(k.c_str(), k.size())] = nb::str(v.c_str(), v.size());
  return nb::make_tuple(r.status, headers, nb::bytes(r.body.data(), r.body.size()));
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
  g_module = m;
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
        json::value value;
        try {
          value = to_json(market_id);
        } catch (nb::python_error&) {
          value = nullptr;
        }
        return coerce_agent_market_id(value, to_text(nb::repr(market_id)));
      },
      nb::arg("market_id").none());
  m.def("_remove_manifest_tmp_file", &remove_manifest_tmp_file, nb::call_guard<nb::gil_scoped_release>(),
        nb::arg("data_dir"), nb::arg("file_path"));
  m.def(
      "_cleanup_sync_tmp_files",
      [](const std::string& data_dir, nb::handle preserve) {
        std::vector<std::string> paths;
        if (!preserve.is_none()) {
          for (nb::handle p : preserve) paths.push_back(to_text(p));
        }
        nb::gil_scoped_release release;
        cleanup_sync_tmp_files(data_dir, paths);
      },
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
          [](nb::handle data_dir) {
            std::string dir = path_text(data_dir);
            nb::gil_scoped_release release;
            SyncManager::evict(dir);
          },
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
          [](SyncManager& self, nb::handle sync_http_transport, nb::handle sync_http_chunk_bytes,
             nb::handle sync_max_concurrency) {
            SyncKnobs knobs{knob(sync_http_transport), knob(sync_http_chunk_bytes), knob(sync_max_concurrency)};
            nb::gil_scoped_release release;
            self.set_sync_runtime_knobs(knobs);
          },
          nb::kw_only(), nb::arg("sync_http_transport") = nb::none(), nb::arg("sync_http_chunk_bytes") = nb::none(),
          nb::arg("sync_max_concurrency") = nb::none())
      .def("sync", [](SyncManager& s) {
             SyncResult r;
             {
               nb::gil_scoped_release release;
               r = s.sync();
             }
             return to_python(r);
           }, "Full sync: manifest, compare, download, verify, atomic write.\n\n"
              "Transient failures are retried without limit under the backoff policy: transient\n"
              "HTTP statuses, timeouts, and broken exchanges (a connection reset or closed\n"
              "without an answer, a response without a valid status line). A file whose bytes\n"
              "keep failing their SHA-256 is fetched again at most 3 times; the sync then raises\n"
              "IntegrityError after a \"checksum_repair_exhausted\" sync event (warning level).")
      .def("_sync_with_manifest_refresh", [](SyncManager& s) {
             SyncResult r;
             {
               nb::gil_scoped_release release;
               r = s.sync_with_manifest_refresh();
             }
             return to_python(r);
           }, "Run sync, restarting if an in-flight manifest generation is stale.")
      .def("verify", [](SyncManager& s) {
             VerifyResult r;
             {
               nb::gil_scoped_release release;
               r = s.verify();
             }
             return to_python(r);
           },
           "Verify local files against manifest existence, size, and checksum.\n\n"
           "Every file is hashed (the hash cache is not used). Files that look missing or corrupted "
           "are looked at again under the cross-process sync lock, so verify() may wait for a sync "
           "running in another process (which promotes files before it writes the manifest) and "
           "reports what that sync left. A manifest path that cannot be used safely (one reaching "
           "outside the data directory through a link, say) is reported in corrupted_files instead "
           "of raising.\n\n"
           "With no local manifest (nothing synced yet) nothing is checked: the result is valid with empty "
           "lists and has_manifest=False. Check has_manifest before taking valid as a clean bill.")
      .def("repair", [](SyncManager& s, Shown<shown::TextList> files) {
             std::vector<std::string> paths;
             for (nb::handle f : files) paths.push_back(to_text(f));
             SyncResult r;
             {
               nb::gil_scoped_release release;
               r = s.repair(paths);
             }
             return to_python(r);
           }, nb::arg("corrupted_files"), "Re-download specified corrupted/missing files.\n\n"
              "Failures are retried as in sync(): without limit for transient statuses, timeouts,\n"
              "connection resets and bad status lines; at most 3 further fetches of a file whose\n"
              "SHA-256 keeps failing, then IntegrityError.")
      .def("needs_sync", &SyncManager::needs_sync, nb::call_guard<nb::gil_scoped_release>(),
           "Lightweight sync check using version plus local integrity state.\n\n"
           "A version probe without a manifest hash hint is trusted on its version, as sync()\n"
           "trusts it, and the local files decide: after a sync against an unchanged server\n"
           "the answer is False, hint or not.")
      .def("cleanup_old_eras", &SyncManager::cleanup_old_eras, nb::call_guard<nb::gil_scoped_release>(),
           nb::arg("keep_current") = true, "Delete non-current era directories, return bytes freed.")
      .def("_schedule_cleanup_old_eras", &SyncManager::schedule_cleanup_old_eras,
           nb::call_guard<nb::gil_scoped_release>(), nb::arg("keep_current") = true,
           "Run old-era cleanup on a daemon thread after foreground sync work.")
      .def("ensure_manifest_file_available", [](SyncManager& s, const std::string& file_path,
                                                Shown<shown::JsonObject> info) {
             json::value v = to_json(info);
             SyncResult r;
             {
               nb::gil_scoped_release release;
               r = s.ensure_manifest_file_available(file_path, v);
             }
             return to_python(r);
           }, nb::arg("file_path"), nb::arg("file_info"),
           "Ensure one manifest file exists locally through the sync boundary.")
      .def("_local_file_matches_manifest",
           [](SyncManager& s, const std::string& file_path, const std::string& local_path, nb::handle info,
              bool cache_allowed) {
             json::value v = to_json(info);
             nb::gil_scoped_release release;
             return s.local_file_matches_manifest(file_path, local_path, v, cache_allowed);
           },
           nb::arg("file_path"), nb::arg("local_path"), nb::arg("file_info"), nb::arg("cache_allowed") = true)
      .def("_download_file",
           [](SyncManager& s, const std::string& file_path, nb::handle info, nb::handle result,
              nb::handle retry_status_callback, std::optional<std::string> target_data_dir,
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
           [](SyncManager& s, nb::handle files, nb::handle result) {
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
      .def("_http_get",
           [](SyncManager& s, const std::string& url, std::int64_t start, std::int64_t end) {
             HttpResponse r;
             {
               nb::gil_scoped_release release;
               r = s.http_get(url, start, end);
             }
             return http_triple(r);
           },
           nb::arg("url"), nb::arg("range_start") = 0, nb::arg("range_end") = -1, "HTTP GET with fresh token per request.")
      .def("_http_get_public",
           [](SyncManager& s, const std::string& url, std::int64_t start, std::int64_t end) {
             HttpResponse r;
             {
               nb::gil_scoped_release release;
               r = s.http_get_public(url, start, end);
             }
             return http_triple(r);
           },
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
      .def("_acquire_flock", &SyncManager::acquire_flock, nb::call_guard<nb::gil_scoped_release>())
      .def("_release_flock", &SyncManager::release_flock, nb::call_guard<nb::gil_scoped_release>())
      .def("_persist_hash_cache", [](SyncManager& s) {
             nb::gil_scoped_release release;
             s.hash_cache().persist();
           })
      .def_prop_ro("_vocabulary", [](const SyncManager& s) -> nb::object {
             auto v = s.vocabulary();
             return v ? from_json(json::value(*v)) : nb::none();
           })
      .def("get_manifest", &held_manifest,
           nb::sig("def get_manifest(self) -> Manifest | None"),
           "Return current local Manifest or None. It is the same object for as long as the manager holds the same "
           "manifest; the manager itself works from its own copy (see Manifest).")
      .def("status", &SyncManager::status, nb::call_guard<nb::gil_scoped_release>(),
           "Return the current human-readable sync status, if any.")
      .def("consumer_count", &SyncManager::consumer_count, nb::call_guard<nb::gil_scoped_release>())
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
