// Mistyped words of every program of this project.
#include "mistyped_word.h"

#include <gtest/gtest.h>

namespace
{

std::string nearest(const std::string &word, const std::vector<std::string> &candidates)
{
    return nearest_word(word, candidates);
}

} // namespace

TEST(mistyped_word, small_mistakes_and_beginnings_are_near)
{
    EXPECT_EQ(nearest("statsu", {"run", "status"}), "status");
    EXPECT_EQ(nearest("rn", {"run", "status"}), "run");
    EXPECT_EQ(nearest("st", {"run", "status"}), "status");
    EXPECT_EQ(nearest("exit", {"run", "status"}), "");
    EXPECT_EQ(nearest("", {"run"}), "");
    EXPECT_EQ(nearest("x", {"y"}), "");
    EXPECT_EQ(nearest(std::string(100000, 'a'), {"run", "status"}), "");
}

TEST(mistyped_word, is_told_with_what_may_have_been_meant)
{
    const std::vector<std::string> known = {"run", "status"};
    EXPECT_EQ(unknown_word_text("command", "rnu", known, "`help` lists them"),
              "unknown command `rnu`; did you mean `run`?");
    EXPECT_EQ(unknown_word_text("command", "frobnicate", known, "`help` lists them"),
              "unknown command `frobnicate`; `help` lists them");
    EXPECT_EQ(unknown_word_text("rule", "frobnicate", known), "unknown rule `frobnicate`");
}
