#include "calvane/config/NearestName.h"

#include <algorithm>
#include <numeric>

#include "quarn/core/StringUtil.h"

namespace quarn::calvane {

namespace {

// How many letters have to be put in, left out or exchanged to make one word of the other.
size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t exchanged = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, exchanged});
        }
    }
    return row[b.size()];
}

} // namespace

std::string FindNearestName(const std::string& word, const std::vector<std::string>& names) {
    const std::string typed = core::StringUtil::ToLower(word);
    const size_t limit = std::max<size_t>(2, word.size() / 3);
    size_t best = limit + 1;
    std::string nearest;
    for (const std::string& name : names) {
        const size_t distance = EditDistance(typed, core::StringUtil::ToLower(name));
        if (distance < best) {
            best = distance;
            nearest = name;
        }
    }
    return nearest;
}

std::string SuggestName(const std::string& word, const std::vector<std::string>& names) {
    const std::string nearest = FindNearestName(word, names);
    return nearest.empty() ? "" : " (did you mean \"" + nearest + "\"?)";
}

} // namespace quarn::calvane
