#include "printable_text.h"

#include <algorithm>

namespace qtrace_tool
{
namespace
{

// Bytes of the UTF-8 character that `text` begins with; 0 when it begins with none beyond ASCII.
size_t utf8_length(std::string_view text)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const size_t length = byte(0) >= 0xF0 && byte(0) <= 0xF4   ? 4
                          : byte(0) >= 0xE0 && byte(0) <= 0xEF ? 3
                          : byte(0) >= 0xC2 && byte(0) <= 0xDF ? 2
                                                               : 0;
    if (length == 0 || text.size() < length)
        return 0;
    for (size_t i = 1; i < length; ++i)
        if ((byte(i) & 0xC0) != 0x80)
            return 0;
    const bool overlong = (byte(0) == 0xE0 && byte(1) < 0xA0) || (byte(0) == 0xF0 && byte(1) < 0x90);
    const bool no_character = (byte(0) == 0xED && byte(1) > 0x9F) || (byte(0) == 0xF4 && byte(1) > 0x8F);
    return overlong || no_character ? 0 : length;
}

// Stands for itself in a JSON string.
bool is_plain(char c)
{
    return c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
}

void print_json_byte(Output &out, char c)
{
    if (is_plain(c)) {
        out.put(c);
    } else if (c == '"' || c == '\\') {
        out.put('\\');
        out.put(c);
    } else {
        out.put("\\u00");
        out.put_hex(static_cast<unsigned char>(c), 2);
    }
}

} // namespace

void print_json_bytes(Output &out, std::string_view bytes)
{
    out.put('"');
    for (const char c : bytes)
        print_json_byte(out, c);
    out.put('"');
}

// UTF-8 as it is, byte by byte what is none: `print_byte` decides about those and about ASCII that is not plain.
template <class Byte_Printer> static void print_utf8(Output &out, std::string_view text, Byte_Printer print_byte)
{
    while (!text.empty()) {
        const auto special = std::ranges::find_if_not(text, is_plain);
        auto length = static_cast<size_t>(special - text.begin());
        if (length == 0)
            length = utf8_length(text);
        if (length > 0)
            out.put(text.substr(0, length));
        else
            print_byte(out, text[0]);
        text.remove_prefix(std::max<size_t>(length, 1));
    }
}

void print_json_text(Output &out, std::string_view text)
{
    out.put('"');
    print_utf8(out, text, print_json_byte);
    out.put('"');
}

void print_visible(Output &out, std::string_view text)
{
    print_utf8(out, text, [](Output &to, char c) {
        if (c == '"' || c == '\\')
            to.put(c);
        else
            to.print("\\x{:02x}", static_cast<unsigned char>(c));
    });
}

} // namespace qtrace_tool
