#include "suggestion.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

namespace {

constexpr std::size_t MOST_CHANGES = 2;

/// The number of letters to insert, remove or replace to turn one word into the other.
std::size_t Distance(std::string_view from, std::string_view to)
{
    constexpr std::size_t longest = 256; // more than anybody types; shows the compiler that the row is never empty
    to = to.substr(0, longest);
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

} // namespace

std::string_view Nearest(std::string_view word, const std::vector<std::string_view>& known)
{
    std::string_view nearest;
    std::size_t least = std::min(MOST_CHANGES + 1, word.size());
    for (const std::string_view candidate : known) {
        const std::size_t distance = Distance(word, candidate);
        if (distance < least) {
            least = distance;
            nearest = candidate;
        }
    }
    return nearest;
}

std::string DidYouMean(std::string_view word, const std::vector<std::string_view>& known)
{
    const std::string nearest(Nearest(word, known));
    return nearest.empty() ? nearest : " Did you mean \"" + nearest + "\"?";
}
