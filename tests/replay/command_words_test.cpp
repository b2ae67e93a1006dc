// Words of console lines, and guesses at mistyped ones.

#include "command_words.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using replay::split_words;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(command_words, are_separated_by_blanks)
{
    EXPECT_THAT(split_words("plugin  load\tx.so ").words, ElementsAre("plugin", "load", "x.so"));
    EXPECT_THAT(split_words("  run\r").words, ElementsAre("run"));
    EXPECT_THAT(split_words("a\rb\nc").words, ElementsAre("a", "b", "c"));
}

TEST(command_words, blank_lines_and_comments_have_none)
{
    EXPECT_THAT(split_words("").words, IsEmpty());
    EXPECT_THAT(split_words(" \t ").words, IsEmpty());
    EXPECT_THAT(split_words("  # run").words, IsEmpty());
}

TEST(command_words, comment_begins_with_a_word_only)
{
    EXPECT_THAT(split_words("run # all").words, ElementsAre("run"));
    EXPECT_THAT(split_words("start a#b '#c'").words, ElementsAre("start", "a#b", "#c"));
}

TEST(command_words, quotes_hold_blanks_and_each_other)
{
    EXPECT_THAT(split_words(R"(a "b c" 'd "e')").words, ElementsAre("a", "b c", R"(d "e)"));
    EXPECT_THAT(split_words(R"(tra"ce f"ile)").words, ElementsAre("trace file"));
    EXPECT_THAT(split_words(R"('' "")").words, ElementsAre("", ""));
}

TEST(command_words, backslash_takes_the_next_character_as_it_is)
{
    EXPECT_THAT(split_words(R"(a\ b \"c\" "d\"e" 'f\g')").words, ElementsAre("a b", "\"c\"", "d\"e", "f\\g"));
}

TEST(command_words, line_that_ends_inside_something_is_a_problem)
{
    EXPECT_EQ(split_words("run \"5").problem, "the double quote is not closed");
    EXPECT_EQ(split_words("run '5").problem, "the single quote is not closed");
    EXPECT_EQ(split_words("run 5\\").problem, "nothing follows the backslash");
    EXPECT_EQ(split_words("run 5").problem, "");
}
