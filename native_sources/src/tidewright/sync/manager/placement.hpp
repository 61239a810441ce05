// Putting a finished file in place in the data directory.
//
// The move is a rename relative to descriptors of the source and destination
// directories, opened segment by segment below their roots without following
// links (missing directories are created on the way). Whatever is planted
// in the data directory meanwhile, a link on the way or at the destination
// is refused rather than followed, so the rename never lands outside it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tidewright::sync {

// Moves the file at `relative` below `from_root` to the same relative path
// below `to_root`, replacing what is there atomically. Both roots are
// resolved directories; `relative` is a safe relative path (no "." or ".."
// segments). Throws ManifestError naming `file_path` when a directory on the
// way or the destination is a link, and the OS error otherwise.
void move_into_place(const std::string& from_root, const std::string& to_root, std::string_view relative,
                     std::string_view file_path);

// The rename move_into_place ends with, for a caller that holds the opened
// directories already (a staging file promoted onto its final name):
// `from_name` in `from_dir` onto `to_name` in `to_dir`, replacing what is
// there atomically. Throws ManifestError naming `file_path` when the
// destination is a link, and the OS error of the rename naming
// `error_path`.
void rename_into_place(int from_dir, const std::string& from_name, int to_dir, const std::string& to_name,
                       std::string_view file_path, const std::string& error_path);

// The switch of an era transition: the files at `relative_paths` below
// `staging` moved to the same places below `data_dir`. Every destination is
// checked before the first move, so that a link in the data directory
// refuses the switch as a whole rather than half of it; each file then goes
// in place with move_into_place, which refuses a link planted meanwhile.
// Returns the final paths, in the order of `relative_paths`. Throws
// ManifestError for a path that escapes the data directory or passes
// through a link, and the OS error of a move.
std::vector<std::string> move_staged_files_into_place(const std::string& staging, const std::string& data_dir,
                                                      const std::vector<std::string>& relative_paths);

}  // namespace tidewright::sync
