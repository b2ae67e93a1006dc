// What a mistyped word was probably meant to be, in the same words in every program of this project.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

// Edits (inserted, dropped, changed or swapped letters) that turn `a` into `b`.
inline size_t edits_between(std::string_view a, std::string_view b)
{
    std::vector<std::vector<size_t>> cost(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); i++)
        for (size_t k = 0; k <= b.size(); k++) {
            if (i == 0 || k == 0) {
                cost[i][k] = i + k;
                continue;
            }
            cost[i][k] =
                std::min({cost[i - 1][k] + 1, cost[i][k - 1] + 1, cost[i - 1][k - 1] + (a[i - 1] != b[k - 1])});
            if (i > 1 && k > 1 && a[i - 1] == b[k - 2] && a[i - 2] == b[k - 1])
                cost[i][k] = std::min(cost[i][k], cost[i - 2][k - 2] + 1);
        }
    return cost[a.size()][b.size()];
}

// The candidate that `word` is most likely a mistyping of, or a beginning; empty when none is near.
template <class Words> std::string nearest_word(std::string_view word, const Words &candidates)
{
    std::string best;
    size_t fewest = word.size() / 3 + 2; // more edits than that: another word
    for (const std::string_view candidate : candidates) {
        const bool begins = word.size() > 1 && candidate.starts_with(word);
        if (!begins && word.size() >= candidate.size() + fewest)
            continue; // at least so many letters have to go
        if (const size_t edits = begins ? 1 : edits_between(word, candidate);
            edits < fewest && edits < candidate.size()) {
            fewest = edits;
            best = candidate;
        }
    }
    return best;
}

// "unknown command `rnu`; did you mean `run`?"; `otherwise` follows the semicolon when no known word is near.
template <class Words>
std::string unknown_word_text(std::string_view what, std::string_view unknown, const Words &known,
                              std::string_view otherwise = {})
{
    const std::string near = nearest_word(unknown, known);
    std::string text = "unknown " + std::string(what) + " `" + std::string(unknown) + "`";
    if (!near.empty() && near != unknown)
        return text + "; did you mean `" + near + "`?";
    return otherwise.empty() ? text : text + "; " + std::string(otherwise);
}
