#pragma once

#include <string>
#include <vector>

namespace quarn::calvane {

/// The one of `names` that somebody who typed `word` most likely meant, or the empty text when none is near.
std::string FindNearestName(const std::string& word, const std::vector<std::string>& names);

/// ` (did you mean "NAME"?)` for the nearest of `names`, or the empty text.
std::string SuggestName(const std::string& word, const std::vector<std::string>& names);

} // namespace quarn::calvane
