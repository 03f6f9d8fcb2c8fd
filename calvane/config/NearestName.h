#pragma once

#include <string>
#include <vector>

#include "calvane/Export.h"

namespace quarn::calvane {

/// The one of `names` that somebody who typed `word` most likely meant, or the empty text when none is near.
CALVANE_API std::string FindNearestName(const std::string& word, const std::vector<std::string>& names);

/// ` (did you mean "NAME"?)` for the nearest of `names`, or the empty text.
CALVANE_API std::string SuggestName(const std::string& word, const std::vector<std::string>& names);

} // namespace quarn::calvane
