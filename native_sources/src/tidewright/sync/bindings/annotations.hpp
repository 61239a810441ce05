// Types the Python side sees in signatures (help(), the generated sync.pyi)
// where the C++ side takes or returns a plain host object.
//
// Many bindings take an nb::handle on purpose: the core does its own checks
// and raises the documented error ("get_token must be callable, got ...",
// "market_id must be a positive integer, got ..."), which a typed nanobind
// parameter would turn into nanobind's generic "incompatible function
// arguments". `Shown<T>` keeps that: it accepts any object exactly like
// nb::handle and only names T in the signature. `ShownObject<T>` does the
// same for a returned nb::object.
#pragma once

#include <nanobind/nanobind.h>

namespace tidewright::sync::bindings {

namespace nb = nanobind;

template <typename T>
using Shown = nb::typed<nb::handle, T>;
template <typename T>
using ShownObject = nb::typed<nb::object, T>;

// Names with no C++ type behind them. Each is only ever used inside Shown<>
// or ShownObject<>, which read nothing but its name.
namespace shown {
struct Str {};                   // a text the core reads with str()
struct Int {};                   // an integer the core reads with int()
struct Bytes {};                 // a bytes-like object
struct ManifestType {};          // a Manifest of this module
struct PathLike {};              // what os.fspath() accepts
struct JsonObject {};            // a JSON object as the host decodes it
struct JsonValue {};             // any JSON value
struct ManifestFiles {};         // Manifest.files: path -> file entry
struct TextList {};              // an iterable of texts (paths, names)
struct ProgressCallback {};      // set_progress_callback's callable
struct SearchesCallback {};      // kill / restart functions of an era transition
struct FreshnessGuard {};        // the runtime freshness guard
struct OptionalFreshnessGuard {};
struct SyncResult {};            // the records this module takes from tidewright._sync_types
struct VerifyResult {};
struct RotationState {};         // tidewright._artifact_rotation.FeatureRotationState
struct OptionalRotationState {};
struct PrefetchedFiles {};       // request_feature_files_for_sync's answer
}  // namespace shown

}  // namespace tidewright::sync::bindings

namespace nanobind::detail {

#define TW_SHOWN_NAME(tag, text)                        \
  template <>                                           \
  struct type_caster<tidewright::sync::bindings::tag> { \
    static constexpr auto Name = const_name(text);      \
  };

TW_SHOWN_NAME(shown::Str, "str")
TW_SHOWN_NAME(shown::Int, "int")
TW_SHOWN_NAME(shown::Bytes, "bytes")
TW_SHOWN_NAME(shown::ManifestType, "Manifest")
TW_SHOWN_NAME(shown::PathLike, "str | os.PathLike[str]")
TW_SHOWN_NAME(shown::JsonObject, "dict[str, typing.Any]")
TW_SHOWN_NAME(shown::JsonValue, "typing.Any")
TW_SHOWN_NAME(shown::ManifestFiles, "dict[str, dict[str, typing.Any]]")
TW_SHOWN_NAME(shown::TextList, "collections.abc.Iterable[str]")
TW_SHOWN_NAME(shown::ProgressCallback, "collections.abc.Callable[[dict[str, typing.Any]], object]")
TW_SHOWN_NAME(shown::SearchesCallback, "collections.abc.Callable[[], object]")
TW_SHOWN_NAME(shown::FreshnessGuard, "tidewright._sync_types.RuntimeFreshnessGuard")
TW_SHOWN_NAME(shown::OptionalFreshnessGuard, "tidewright._sync_types.RuntimeFreshnessGuard | None")
TW_SHOWN_NAME(shown::SyncResult, "SyncResult")
TW_SHOWN_NAME(shown::VerifyResult, "VerifyResult")
TW_SHOWN_NAME(shown::RotationState, "tidewright._artifact_rotation.FeatureRotationState")
TW_SHOWN_NAME(shown::OptionalRotationState, "tidewright._artifact_rotation.FeatureRotationState | None")
TW_SHOWN_NAME(shown::PrefetchedFiles, "list[dict[str, str]]")

#undef TW_SHOWN_NAME

}  // namespace nanobind::detail
