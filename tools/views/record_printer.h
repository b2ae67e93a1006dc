// Headers and records as text lines and as JSON lines.
#pragma once

#include "json_writer.h"
#include "qtrace_reader.h"
#include "record_schema.h"
#include "symbol_names.h"
#include "tool_output.h"

#include <bitset>
#include <optional>
#include <string>
#include <vector>

namespace qtrace_tool
{

// What a line shows: members, flags, register classes.
class Field_Selection
{
public:
    // What text lines show when nothing is asked for (no walks), and everything.
    static Field_Selection usual();
    static Field_Selection all();
    // From names of members, of register classes and of groups. An unknown name comes back in `unknown`.
    static std::optional<Field_Selection> parse(const std::vector<std::string> &names, std::string &unknown);
    // Every name that parse() takes.
    static std::vector<std::string> names();

    bool shows_flags() const { return flags_; }
    bool shows_registers(size_t register_class) const { return registers_[register_class]; }
    const trace::Member_Set &members() const { return members_; }

private:
    void add_group(trace::Field_Group group);
    bool add(std::string_view name);

    trace::Member_Set members_;
    bool flags_ = false;
    std::bitset<16> registers_;
};

// What is shown of an item beside what it carries itself.
struct Item_Notes {
    Name_Finder *names = nullptr; // that has entered the context of the item; null: addresses have no names
    std::string_view mnemonic{};  // of a record, from the text trace; empty when it is not known
};

void print_header(Output &out, const QTRACE_Item &item, const Item_Notes &notes = {});
void print_record(Output &out, const QTRACE_Item &item, const Field_Selection &fields,
                  const Item_Notes &notes = {});
void print_discontinuity(Output &out, const QTRACE_Item &item);
// One object a line, whose first members are there already.
void print_header_json(Output &out, const QTRACE_Item &item, std::string_view beginning,
                       const Item_Notes &notes = {});
void print_discontinuity_json(Output &out, const QTRACE_Item &item, std::string_view beginning);
void print_record_json(Output &out, const QTRACE_Item &item, std::string_view beginning,
                       const Field_Selection &fields, const Item_Notes &notes = {});

// ` <name+0x10>`; nothing when the address has no name.
void print_name(Output &out, const Item_Notes &notes, uint64_t address);
// The same as a member, "name+0x10".
void name_member(Json_Writer &json, std::string_view key, const Item_Notes &notes, uint64_t address);

// One member's value as text lines show it.
void print_value(Output &out, const trace::Trace_Member &member, const uint8_t *bytes);
template <class Structure>
void print_value(Output &out, const trace::Trace_Member &member, const Structure &structure)
{
    print_value(out, member, member.at(structure));
}

// The same as text.
template <class Structure> std::string value_text(const trace::Trace_Member &member, const Structure &structure)
{
    Output text;
    print_value(text, member, structure);
    return text.take();
}

// All registers of a record, as text lines show them.
std::string registers_text(const QTRACE_REGISTERS &registers);

// What the columns and words of text lines mean.
extern const char *const LINE_LEGEND;

} // namespace qtrace_tool
