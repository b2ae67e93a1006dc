#include "json_writer.h"

namespace qtrace_tool
{

void Json_Writer::key(std::string_view name)
{
    separate();
    print_json_text(out_, name);
    out_.put(':');
    comma_ = false;
}

void Json_Writer::value(std::string_view text)
{
    separate();
    print_json_text(out_, text);
}

void Json_Writer::value(Json_Hex number)
{
    separate();
    out_.put("\"0x");
    out_.put_hex(number.value);
    out_.put('"');
}

void Json_Writer::value(Json_Fixed number)
{
    separate();
    out_.print("{:.{}f}", number.value, number.decimals);
}

void Json_Writer::value(Json_Bytes text)
{
    separate();
    print_json_bytes(out_, text.bytes);
}

void Json_Writer::value(std::nullptr_t)
{
    put_word("null");
}

void Json_Writer::end_line()
{
    out_.put('\n');
    out_.settle();
    comma_ = false;
}

void Json_Writer::put_word(std::string_view word)
{
    separate();
    out_.put(word);
}

void Json_Writer::put_number(uint64_t number)
{
    separate();
    out_.put_decimal(number);
}

} // namespace qtrace_tool
