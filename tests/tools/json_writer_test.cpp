#include "json_writer.h"

#include <gtest/gtest.h>

using namespace qtrace_tool;

namespace
{

// What `write` makes of a writer.
template <class Write> std::string written(Write write)
{
    Output out(-1);
    Json_Writer json(out);
    write(json);
    return out.take();
}

std::string string_of(std::string_view text)
{
    return written([&](Json_Writer &json) { json.value(text); });
}

} // namespace

TEST(json_writer, members_are_separated_by_commas)
{
    EXPECT_EQ(written([](Json_Writer &json) {
                  json.object([&] {
                      json.member("a", 1u);
                      json.member("b", uint64_t{18446744073709551615u});
                      json.member("c", uint8_t{7});
                  });
              }),
              R"({"a":1,"b":18446744073709551615,"c":7})");
}

TEST(json_writer, empty_objects_and_arrays_have_nothing_in_them)
{
    EXPECT_EQ(written([](Json_Writer &json) {
                  json.object([&] {
                      json.object("a", [] {});
                      json.array("b", [] {});
                      json.member("c", 0u);
                  });
              }),
              R"({"a":{},"b":[],"c":0})");
}

TEST(json_writer, objects_and_arrays_nest)
{
    EXPECT_EQ(written([](Json_Writer &json) {
                  json.object([&] {
                      json.array("rows", [&] {
                          json.object([&] { json.member("x", 1u); });
                          json.object([&] { json.member("x", 2u); });
                          json.begin_array();
                          json.value(3u);
                          json.value("four");
                          json.end_array();
                      });
                      json.member("after", true);
                  });
              }),
              R"({"rows":[{"x":1},{"x":2},[3,"four"]],"after":true})");
}

TEST(json_writer, numbers_words_and_addresses_have_their_forms)
{
    EXPECT_EQ(
        written([](Json_Writer &json) {
            json.object([&] {
                json.member("address", Json_Hex{0xC000000000001F00});
                json.member("zero", Json_Hex{0});
                json.member("rate", Json_Fixed{2.0 / 3, 4});
                json.member("whole", Json_Fixed{12.0, 0});
                json.member("yes", true);
                json.member("no", false);
                json.member("none", nullptr);
            });
        }),
        R"({"address":"0xc000000000001f00","zero":"0x0","rate":0.6667,"whole":12,"yes":true,"no":false,"none":null})");
}

TEST(json_writer, literals_and_pointers_to_characters_are_strings)
{
    const char *const pointer = "text";
    EXPECT_EQ(string_of(pointer), R"("text")");
    EXPECT_EQ(written([&](Json_Writer &json) {
                  json.object([&] {
                      json.member("a", pointer);
                      json.member("b", "literal");
                  });
              }),
              R"({"a":"text","b":"literal"})");
}

TEST(json_writer, quotes_backslashes_and_control_characters_are_escaped)
{
    EXPECT_EQ(string_of("say \"hi\""), R"("say \"hi\"")");
    EXPECT_EQ(string_of("C:\\x"), R"("C:\\x")");
    EXPECT_EQ(string_of("a\nb\tc"), R"("a\u000ab\u0009c")");
    EXPECT_EQ(string_of(std::string_view("\0\x1b\x7f", 3)), R"("\u0000\u001b\u007f")");
    EXPECT_EQ(string_of(""), R"("")");
}

TEST(json_writer, utf8_stays_and_other_bytes_become_the_character_of_their_number)
{
    EXPECT_EQ(string_of("caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"),
              "\"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80\"");
    EXPECT_EQ(string_of("caf\xE9"), R"("caf\u00e9")");
    EXPECT_EQ(string_of("\xC3"), R"("\u00c3")");           // cut
    EXPECT_EQ(string_of("\xC0\xAF"), R"("\u00c0\u00af")"); // more bytes than needed
    EXPECT_EQ(string_of("\xE0\x80\x80"), R"("\u00e0\u0080\u0080")");
    EXPECT_EQ(string_of("\xED\xA0\x80"), R"("\u00ed\u00a0\u0080")");           // half of a pair
    EXPECT_EQ(string_of("\xF4\x90\x80\x80"), R"("\u00f4\u0090\u0080\u0080")"); // above the last character
}

TEST(json_writer, bytes_are_one_character_each)
{
    EXPECT_EQ(written([](Json_Writer &json) { json.value(Json_Bytes{"a\xC3\xA9\"\x01"}); }),
              R"("a\u00c3\u00a9\"\u0001")");
}

TEST(json_writer, keys_are_escaped_too)
{
    EXPECT_EQ(written([](Json_Writer &json) { json.object([&] { json.member("a\"b", 1u); }); }), R"({"a\"b":1})");
}

TEST(json_writer, each_line_is_a_document)
{
    EXPECT_EQ(written([](Json_Writer &json) {
                  json.line([&] { json.member("a", 1u); });
                  json.line([] {});
                  json.line([&] { json.member("b", 2u); });
              }),
              "{\"a\":1}\n{}\n{\"b\":2}\n");
}

TEST(json_writer, goes_on_inside_an_object_that_has_members)
{
    Output out(-1);
    out.put(R"({"file":"x")");
    Json_Writer json = Json_Writer::inside_object(out);
    json.member("record", 5u);
    json.end_object();
    EXPECT_EQ(out.take(), R"({"file":"x","record":5})");
}
