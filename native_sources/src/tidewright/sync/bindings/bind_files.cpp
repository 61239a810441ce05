// Python face of the file utilities (hashing, atomic writes, the progress
// file) and of the manifest files. Arguments are converted with the GIL held;
// hashing and file I/O then run without it.
#include "tidewright/sync/bindings/annotations.hpp"
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/bindings/python_host.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/manifest/manifest_files.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>

#include <Python.h>

namespace tidewright::sync::bindings {

namespace {

[[noreturn]] void raise_from_python() { throw nb::python_error(); }

bool is_true(nb::handle object) {
  int truth = PyObject_IsTrue(object.ptr());
  if (truth < 0) raise_from_python();
  return truth == 1;
}

// The text form of a truthy argument; empty for a falsy one.
std::optional<std::string> truthy_text(nb::handle object) {
  if (!is_true(object)) return std::nullopt;
  return to_text(object);
}

// int(object) as a 64-bit integer.
std::int64_t python_int(nb::handle object) {
  PyObject* converted = PyNumber_Long(object.ptr());
  if (!converted) raise_from_python();
  return nb::cast<std::int64_t>(nb::steal(converted));
}

json::object mapping_arg(nb::handle object, const char* name) {
  json::value value = to_json(object);
  if (!value.is_object()) throw TypeError(std::string(name) + " must be a mapping");
  return std::move(value.get_object());
}

// An integer attribute of the manifest: absent or empty gives 0.
std::int64_t manifest_number(nb::handle manifest, const char* name) {
  nb::object value = nb::getattr(manifest, name, nb::none());
  return is_true(value) ? python_int(value) : 0;
}

// The size function of tidewright._sync_progress, looked up now so that a
// replaced one is honoured. It is called per file from the core, which runs
// without the GIL.
ManifestSiblings progress_siblings() {
  ManifestSiblings siblings = default_manifest_siblings();
  nb::object module = nb::module_::import_("importlib").attr("import_module")("tidewright._sync_progress");
  nb::object size_fn = module.attr("manifest_file_size");
  nb::object native = nb::getattr(size_fn, "__tidewright_native__", nb::none());
  if (!native.is_none() && to_text(native) == "manifest_file_size") return siblings;
  HostRef ref = make_ref(size_fn);
  siblings.manifest_file_size = [ref](const json::value& entry) -> std::optional<std::int64_t> {
    nb::gil_scoped_acquire gil;
    try {
      nb::object size = ref_object(ref)(from_json(entry));
      if (size.is_none()) return std::nullopt;
      std::int64_t out = 0;
      if (!nb::try_cast(size, out)) throw TypeError("manifest_file_size must return an int or None");
      return out;
    } catch (nb::python_error& e) {
      e.restore();
      throw_host_error_from_python();
    }
  };
  return siblings;
}

constexpr const char* kSha256FileDoc = "Return SHA256 for a file without reading it all into memory.";
constexpr const char* kAtomicWriteDoc = "Write data to filepath via a per-write temp file + rename.";

}  // namespace

void bind_files(nb::module_& m) {
  m.attr("_SYNC_PROGRESS_FILENAME") = nb::str(SYNC_PROGRESS_FILENAME.data(), SYNC_PROGRESS_FILENAME.size());
  m.attr("_MANIFEST_SYNC_METADATA_FILENAME") =
      nb::str(MANIFEST_SYNC_METADATA_FILENAME.data(), MANIFEST_SYNC_METADATA_FILENAME.size());

  m.def("_sha256", [](const BytesArg& data) { return sha256(data.data()); }, kReleaseGil, nb::arg("data"));
  m.def(
      "_sha256_file",
      [](const FsPathArg& filepath, std::int64_t chunk_bytes) { return sha256_file(filepath.path, chunk_bytes); },
      kReleaseGil, nb::arg("filepath"), nb::arg("chunk_bytes") = SYNC_HASH_FILE_CHUNK_BYTES, kSha256FileDoc);
  m.def(
      "_atomic_write",
      [](const FsPathArg& filepath, const BytesArg& data) { atomic_write(filepath.path, data.data()); },
      kReleaseGil, nb::arg("filepath"), nb::arg("data"), kAtomicWriteDoc);

  // Not part of the interface: (calls, seconds) of the file-system flushes
  // made in this process so far, for the durability benchmark.
  m.def("_sync_flush_totals", [] {
    const FlushTotals totals = flush_totals();
    return std::make_pair(totals.calls, totals.seconds);
  });

  m.def(
      "_sync_progress_path",
      [](const FsPathArg& data_dir) { return fs_path_result(sync_progress_path(data_dir.path)); },
      nb::arg("data_dir"));
  m.def(
      "_write_sync_progress_json",
      [](Shown<shown::PathLike> data_dir, nb::handle manifest, Shown<shown::JsonObject> files_to_download) {
        std::string dir = fs_path(data_dir);
        std::int64_t era_number = manifest_number(manifest, "era_number");
        std::int64_t version = manifest_number(manifest, "version");
        json::object files = mapping_arg(files_to_download, "files_to_download");
        ManifestSiblings siblings = progress_siblings();
        nb::gil_scoped_release release;
        write_sync_progress_json(dir, era_number, version, files, siblings);
      },
      nb::arg("data_dir"), nb::arg("manifest").none(), nb::arg("files_to_download"));
  m.def(
      "_remove_sync_progress_json", [](const FsPathArg& data_dir) { remove_sync_progress_json(data_dir.path); },
      kReleaseGil, nb::arg("data_dir"));

  m.def(
      "_write_manifest_json",
      [](Shown<shown::PathLike> data_dir, Shown<shown::JsonObject> manifest_data, nb::handle server_manifest_sha256,
         nb::handle server_manifest_body_sha256) {
        std::string dir = fs_path(data_dir);
        json::object data = mapping_arg(manifest_data, "manifest_data");
        std::optional<std::string> sha = truthy_text(server_manifest_sha256);
        std::optional<std::string> body_sha = truthy_text(server_manifest_body_sha256);
        nb::gil_scoped_release release;
        write_manifest_json(dir, data, sha, body_sha);
      },
      nb::arg("data_dir"), nb::arg("manifest_data"), nb::kw_only(),
      nb::arg("server_manifest_sha256").none() = nb::none(),
      nb::arg("server_manifest_body_sha256").none() = nb::none());
  m.def(
      "_manifest_sync_metadata_path",
      [](const FsPathArg& data_dir) { return fs_path_result(manifest_sync_metadata_path(data_dir.path)); },
      nb::arg("data_dir"));
  m.def(
      "_load_manifest_sync_metadata",
      [](const FsPathArg& data_dir) { return load_manifest_sync_metadata(data_dir.path); }, kReleaseGil,
      nb::arg("data_dir"));
  m.def(
      "_write_manifest_sync_metadata",
      [](Shown<shown::PathLike> data_dir, Shown<shown::JsonObject> manifest_data, nb::handle server_manifest_sha256,
         nb::handle server_manifest_body_sha256) {
        std::string dir = fs_path(data_dir);
        json::object data = mapping_arg(manifest_data, "manifest_data");
        std::optional<std::string> sha = truthy_text(server_manifest_sha256);
        std::optional<std::string> body_sha = truthy_text(server_manifest_body_sha256);
        nb::gil_scoped_release release;
        write_manifest_sync_metadata(dir, data, sha, body_sha);
      },
      nb::arg("data_dir"), nb::arg("manifest_data"), nb::kw_only(),
      nb::arg("server_manifest_sha256").none() = nb::none(),
      nb::arg("server_manifest_body_sha256").none() = nb::none());
  m.def(
      "_manifest_hash_hint_matches_local_state",
      [](Shown<shown::PathLike> data_dir, Shown<shown::Int> local_version, Shown<shown::Int> local_era_number,
         nb::handle server_manifest_sha_hint) {
        std::optional<std::string> hint = truthy_text(server_manifest_sha_hint);
        // Without a hint there is nothing to compare, whatever the local values are.
        if (!hint) return false;
        std::string dir = fs_path(data_dir);
        std::int64_t version = python_int(local_version);
        std::int64_t era_number = python_int(local_era_number);
        nb::gil_scoped_release release;
        return manifest_hash_hint_matches_local_state(dir, version, era_number, hint);
      },
      nb::arg("data_dir").none(), nb::arg("local_version").none(), nb::arg("local_era_number").none(),
      nb::arg("server_manifest_sha_hint").none());
}

}  // namespace tidewright::sync::bindings
