// JSON on an Output: commas and quotes come by themselves, nothing is kept in memory.
#pragma once

#include "printable_text.h"

#include <concepts>
#include <type_traits>

namespace qtrace_tool
{

// A number as a string, "0x1f": addresses have more bits than a number of JSON.
struct Json_Hex {
    uint64_t value;
};
// A number with so many decimal places.
struct Json_Fixed {
    double value;
    int decimals;
};
// A string of bytes of any meaning, each one character.
struct Json_Bytes {
    std::string_view bytes;
};

// Calls are in the order of the text. An object takes key() and value() in turns (or member()), an array value()s.
class Json_Writer
{
public:
    // The output must live as long.
    explicit Json_Writer(Output &out) : out_(out) {}
    // The output ends inside an object that has members already.
    static Json_Writer inside_object(Output &out)
    {
        Json_Writer writer(out);
        writer.comma_ = true;
        return writer;
    }

    void begin_object() { begin('{'); }
    void end_object() { end('}'); }
    void begin_array() { begin('['); }
    void end_array() { end(']'); }

    // The value that follows belongs to `name`.
    void key(std::string_view name);

    void value(std::string_view text);
    void value(Json_Hex number);
    void value(Json_Fixed number);
    void value(Json_Bytes text);
    void value(std::nullptr_t);
    template <std::unsigned_integral Number> void value(Number number)
    {
        if constexpr (std::is_same_v<Number, bool>)
            put_word(number ? "true" : "false");
        else
            put_number(number);
    }

    template <class Value> void member(std::string_view name, const Value &its)
    {
        key(name);
        value(its);
    }

    // What `content` writes, in braces or brackets.
    template <class Content> void object(Content content)
    {
        begin_object();
        content();
        end_object();
    }
    template <class Content> void object(std::string_view name, Content content)
    {
        key(name);
        object(content);
    }
    template <class Content> void array(std::string_view name, Content content)
    {
        key(name);
        begin_array();
        content();
        end_array();
    }

    // A document of a line of its own, complete or ending here. Hands a full buffer on.
    template <class Content> void line(Content content)
    {
        object(content);
        end_line();
    }
    void end_line();

private:
    void separate()
    {
        if (comma_)
            out_.put(',');
        comma_ = true;
    }
    void begin(char bracket)
    {
        separate();
        out_.put(bracket);
        comma_ = false;
    }
    void end(char bracket)
    {
        out_.put(bracket);
        comma_ = true;
    }
    void put_word(std::string_view word);
    void put_number(uint64_t number);

    Output &out_;
    bool comma_ = false; // before what follows
};

} // namespace qtrace_tool
