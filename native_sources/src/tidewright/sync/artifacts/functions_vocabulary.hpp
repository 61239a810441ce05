// Merging the era's function catalogue ("functions.json") into a universe's
// vocabulary: the package's default merge_functions_vocabulary, natively.
#pragma once

#include "tidewright/sync/common/json.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace tidewright::sync {

// `vocabulary` with the entries of `functions` (null: none) added to its
// "functions" section. An entry the vocabulary already names is kept as the
// vocabulary has it; catalogue entries follow the vocabulary's own, in
// catalogue order. The section keeps the vocabulary's shape (list, or object
// keyed by name); without a section of its own the catalogue's shape is used
// (an object-shaped section leaves out entries without a name). The
// vocabulary is taken over and its entries moved; `functions` is copied from.
// Throws ValueError for a vocabulary or functions file that is not an object,
// a section that is neither list nor object, a functions era other than
// `expected_era_number`, or a vocabulary of another universe than
// `named_universe`.
json::value merge_functions_vocabulary(const json::value& functions, json::value vocabulary,
                                       const std::optional<std::string>& named_universe,
                                       std::optional<std::int64_t> expected_era_number);

}  // namespace tidewright::sync
