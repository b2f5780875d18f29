// SPDX-License-Identifier: Apache-2.0
// Enumerates, counts, compares and quotes words. Pure.
#include "tools/nimbrel/Words.h"

#include <algorithm>
#include <numeric>

namespace Nimbrel2::Tool {
namespace {

// How many letters must be inserted, removed, replaced or swapped with their neighbour.
std::size_t Distance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> beforeLast(b.size() + 1);
    std::vector<std::size_t> last(b.size() + 1);
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(last.begin(), last.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replaced = last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, replaced});
            const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (swapped) {
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
            }
        }
        beforeLast.swap(last);
        last.swap(row);
    }
    return last[b.size()];
}

}  // namespace

std::string Enumerate(const std::vector<std::string>& words, const std::string& conjunction) {
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (i != 0) {
            text += i + 1 == words.size() ? " " + conjunction + " " : ", ";
        }
        text += words[i];
    }
    return text;
}

std::string AsSentence(std::string text) {
    if (!text.empty() && text.front() >= 'a' && text.front() <= 'z') {
        text.front() = static_cast<char>(text.front() - 'a' + 'A');
    }
    return text;
}

std::string CountOf(std::size_t count, const std::string& one) {
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

std::string NearestWord(const std::string& word, const std::vector<std::string>& known) {
    constexpr std::size_t ShortestPrefix = 3;
    std::string nearest;
    std::size_t smallest = std::max<std::size_t>(1, word.size() / 3) + 1;
    for (const std::string& candidate : known) {
        const bool begins = word.size() >= ShortestPrefix && candidate.compare(0, word.size(), word) == 0;
        const std::size_t distance = begins ? 0 : Distance(word, candidate);
        if (distance >= smallest || distance >= candidate.size()) {
            continue;
        }
        smallest = distance;
        nearest = candidate;
    }
    return nearest;
}

std::string DidYouMean(const std::string& word, const std::vector<std::string>& known) {
    const std::string nearest = NearestWord(word, known);
    return nearest.empty() ? "" : "; did you mean " + nearest + "?";
}

std::string QuoteForShell(const std::string& text) {
    const char PlainCharacters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-+=./:,@%";
    if (!text.empty() && text.find_first_not_of(PlainCharacters) == std::string::npos) {
        return text;
    }
    std::string quoted = "'";
    for (const char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

}  // namespace Nimbrel2::Tool
