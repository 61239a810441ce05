// ManifestFace: what Python sees as a Manifest.
//
// The engine reads manifests from its own threads without the GIL, so no
// change made from Python may reach a manifest the engine reads. A face
// therefore holds two things: the engine's parsed copy (`manifest`, never
// changed once a face holds it), and its Python attributes, ordinary Python
// objects kept in the face's own __dict__ and built from that copy the first
// time each group of them is read (a manifest of 100,000 files is not
// converted for a caller that only reads era_number). Python code may assign
// the attributes and change the maps they hold, as with any object; the
// engine never sees those changes.
//
// Binding functions that hand a face's manifest to the engine hand it
// `manifest`. Those whose engine function changes a manifest (applying a
// signals index, repairing vocabulary entries) run it on a private copy,
// then let the face hold the copy and refresh the attributes it changed.
//
// Guarded by the GIL: faces are only touched with it held.
#pragma once

#include "tidewright/sync/manifest/manifest.hpp"

#include <nanobind/nanobind.h>

#include <memory>
#include <type_traits>
#include <utility>

namespace tidewright::sync::bindings {

namespace nb = nanobind;

struct ManifestFace {
  ManifestPtr manifest;
  unsigned built = 0;  // the attribute groups already in the face's __dict__
};

// A new face showing `manifest`.
nb::object new_manifest_face(ManifestPtr manifest);

// The face `object` is; TypeError "manifest must be a Manifest, got <type>"
// for anything else.
ManifestFace& manifest_face(nb::handle object);

// A manifest argument of a binding: shows as Manifest in signatures.
using ManifestArg = nb::handle_t<ManifestFace>;

// The engine's copy behind a face, kept alive by the caller while it works
// without the GIL (the face may be shown another copy meanwhile).
inline ManifestPtr engine_manifest(nb::handle face) { return manifest_face(face).manifest; }

// How a change of a face's manifest shows in its attributes.
enum class ManifestChange {
  kMembership,           // the three membership maps were set (even to what they were)
  kMembershipIfChanged,  // the membership maps may have been set
  kFiles,                // entries of the files map may have changed
};

// The face now shows `changed`, a changed copy of its manifest.
void show_changed_manifest(nb::handle face, ManifestPtr changed, ManifestChange change);

// Runs `fn(Manifest&)` on a private copy of the face's manifest, without the
// GIL, and shows the copy when it returns; the face is left as it was when
// it throws. Returns what `fn` returns.
template <typename F>
auto change_manifest(nb::handle face, ManifestChange change, F&& fn) {
  ManifestPtr source = manifest_face(face).manifest;
  ManifestPtr copy;
  using Result = decltype(fn(*source));
  if constexpr (std::is_void_v<Result>) {
    {
      nb::gil_scoped_release release;
      copy = std::make_shared<Manifest>(*source);
      fn(*copy);
    }
    show_changed_manifest(face, std::move(copy), change);
  } else {
    Result result = [&] {
      nb::gil_scoped_release release;
      copy = std::make_shared<Manifest>(*source);
      return fn(*copy);
    }();
    show_changed_manifest(face, std::move(copy), change);
    return result;
  }
}

}  // namespace tidewright::sync::bindings
