// Comma-separated values: a line a record, empty where the record carries nothing.
#include "exporter.h"

#include "address_view.h"
#include "instruction_kinds.h"

#include <algorithm>
#include <stdexcept>

namespace qtrace_tool
{
namespace
{

using namespace trace;

// A record as a column sees it.
struct Row {
    const QTRACE_Item &item;
    const QTRACE_FILE_HDR *context;
    size_t file;
    Flag_Words flags;
};

// Lines of a group of blocks.
class Csv_Part : public Export_Part
{
public:
    struct Column;
    // The columns are the caller's.
    Csv_Part(const std::vector<Column> &columns, size_t file, bool decimal, const Symbol_Names &names)
        : columns_(columns), file_(file), decimal_(decimal), names_(names)
    {
        out_.reserve(USUAL_SIZE); // growing, it would give memory back to the system each time
    }
    void record(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) override;
    size_t size() const override { return out_.size(); }
    std::string_view lines() const { return out_.text(); }

    using Put = void (Csv_Part::*)(const Row &row, const Column &column);
    struct Column {
        std::string_view name;
        Put put;
        const Trace_Member *member = nullptr;
        const Register_Class *registers = nullptr;
    };
    static std::vector<Column> known_columns();

private:
    static constexpr size_t USUAL_SIZE = 1 << 20; // most groups have less

    void put_number(uint64_t value, bool hexadecimal);
    void put_file(const Row &row, const Column &) { put_number(row.file, false); }
    void put_record(const Row &row, const Column &) { put_number(row.item.record_number, false); }
    void put_address(const Row &row, const Column &);
    void put_lpid(const Row &row, const Column &);
    void put_pid(const Row &row, const Column &);
    void put_kinds(const Row &row, const Column &);
    void put_flags(const Row &row, const Column &) { put_number(row.flags.control, true); }
    void put_data_real(const Row &row, const Column &) { put_real(data_address_of(row.item.record)); }
    void put_next_real(const Row &row, const Column &) { put_real(next_address_of(row.item.record)); }
    void put_real(const Translated_Address &address);
    void put_member(const Row &row, const Column &column);
    void put_symbol(const Row &row, const Column &) { put_name(row, row.item.address_known, row.item.address); }
    void put_next_symbol(const Row &row, const Column &) { put_name(row, next_address_of(row.item.record)); }
    void put_data_symbol(const Row &row, const Column &) { put_name(row, data_address_of(row.item.record)); }
    void put_name(const Row &row, const Translated_Address &address)
    {
        put_name(row, address.present, address.address);
    }
    void put_name(const Row &row, bool known, uint64_t address);
    void put_registers(const Row &row, const Column &column);

    const std::vector<Column> &columns_;
    size_t file_;
    bool decimal_;
    Name_Finder names_;
    Output out_{-1};
};

std::vector<Csv_Part::Column> Csv_Part::known_columns()
{
    using C = Csv_Part;
    std::vector<Column> columns = {
        {"file", &C::put_file},
        {"record", &C::put_record},
        {"address", &C::put_address},
        {"lpid", &C::put_lpid},
        {"pid", &C::put_pid},
        {"kinds", &C::put_kinds},
        {"flags", &C::put_flags},
        {"next_real", &C::put_next_real},
        {"data_real", &C::put_data_real},
        {"symbol", &C::put_symbol},
        {"next_symbol", &C::put_next_symbol},
        {"data_symbol", &C::put_data_symbol},
    };
    for (const Trace_Member &member : RECORD_MEMBERS)
        if (member.size <= sizeof(uint64_t))
            columns.push_back({member.name, &C::put_member, &member});
    for (const Register_Class &kind : REGISTER_CLASSES)
        columns.push_back({kind.name, &C::put_registers, nullptr, &kind});
    return columns;
}

void Csv_Part::put_number(uint64_t value, bool hexadecimal)
{
    if (!hexadecimal || decimal_)
        return out_.put_decimal(value);
    out_.put("0x");
    out_.put_hex(value);
}

void Csv_Part::put_address(const Row &row, const Column &)
{
    if (row.item.address_known)
        put_number(row.item.address, true);
}

void Csv_Part::put_lpid(const Row &row, const Column &)
{
    if (row.context != nullptr)
        put_number(number(row.context->lpid), false);
}

void Csv_Part::put_pid(const Row &row, const Column &)
{
    if (row.context != nullptr)
        put_number(number(row.context->pid), false);
}

void Csv_Part::put_kinds(const Row &row, const Column &)
{
    const uint32_t kinds = kinds_of(row.item.record, row.item.address);
    for (std::string_view separator; const Kind_Name &kind : KINDS)
        if ((kinds & kind.kind) != 0) {
            out_.put(separator);
            out_.put(kind.name);
            separator = " ";
        }
}

void Csv_Part::put_real(const Translated_Address &address)
{
    if (const std::optional<uint64_t> real = address.real())
        put_number(*real, true);
}

// A name may have the characters that separate fields: then it stands in quotes.
void Csv_Part::put_name(const Row &row, bool known, uint64_t address)
{
    names_.enter(row.context);
    const std::string name = known ? names_.text(address) : "";
    if (name.find_first_of(",\"\r\n") == std::string::npos)
        return out_.put(name);
    out_.put('"');
    for (const char c : name) {
        out_.put(c);
        if (c == '"')
            out_.put(c);
    }
    out_.put('"');
}

void Csv_Part::put_member(const Row &row, const Column &column)
{
    const Trace_Member &member = *column.member;
    if (!member.gated() || row.flags.any_of(member.gate))
        put_number(member_value(member, row.item.record), member.shape != Member_Shape::decimal);
}

void Csv_Part::put_registers(const Row &row, const Column &column)
{
    const Register_Class &kind = *column.registers;
    for (unsigned i = 0; i < kind.entries(row.item.record.regs); i++) {
        const Register_Entry entry = register_entry(kind, row.item.record.regs, i);
        out_.put(i > 0 ? " " : "");
        out_.put(kind.letter);
        out_.put_decimal(entry.index);
        out_.put("=0x");
        if (kind.words == 1) {
            out_.put_hex(entry.value[0]);
        } else {
            out_.put_hex(entry.value[0], 16);
            out_.put_hex(entry.value[1], 16);
        }
    }
}

void Csv_Part::record(const QTRACE_Item &item, const QTRACE_FILE_HDR *context)
{
    const Row row{item, context, file_, flags_of(item.record)};
    for (size_t i = 0; i < columns_.size(); i++) {
        if (i > 0)
            out_.put(',');
        (this->*columns_[i].put)(row, columns_[i]);
    }
    out_.put('\n');
}

// ---- The exporter --------------------------------------------------------------------------------------

class Csv_Exporter : public Exporter
{
public:
    Csv_Exporter(Output_File &file, const Export_Options &options);
    void begin_file(const std::string &) override { file_number_++; }
    std::unique_ptr<Export_Part> make_part() const override
    {
        return std::make_unique<Csv_Part>(columns_, file_number_, decimal_, names_);
    }
    void add(Export_Part &part) override;

private:
    Output_File &file_;
    bool decimal_;
    const Symbol_Names &names_;
    std::vector<Csv_Part::Column> columns_;
    size_t file_number_ = static_cast<size_t>(-1);
};

Csv_Exporter::Csv_Exporter(Output_File &file, const Export_Options &options)
    : file_(file), decimal_(options.decimal), names_(*options.names)
{
    static const std::vector<std::string> USUAL = {"file",    "record",    "address", "instruction",
                                                   "kinds",   "lpid",      "pid",     "next_instruction_ea",
                                                   "data_ea", "data_real", "length"};
    const std::vector<Csv_Part::Column> known = Csv_Part::known_columns();
    std::vector<std::string> wanted = options.fields.empty() ? USUAL : options.fields;
    if (options.fields.empty() && Name_Finder(names_).any())
        wanted.insert(wanted.end(), {"symbol", "next_symbol", "data_symbol"});
    for (const std::string &name : wanted) {
        const auto column = std::ranges::find(known, name, &Csv_Part::Column::name);
        if (column == known.end())
            throw std::invalid_argument(fmt::format("unknown field of csv `{}`", name));
        columns_.push_back(*column);
        file.out().put(columns_.size() > 1 ? "," : "");
        file.out().put(name);
    }
    file.out().put("\n");
}

void Csv_Exporter::add(Export_Part &part)
{
    file_.out().put(static_cast<Csv_Part &>(part).lines());
    file_.out().settle();
    file_.check();
}

} // namespace

std::unique_ptr<Exporter> make_csv_exporter(Output_File &file, const Export_Options &options)
{
    return std::make_unique<Csv_Exporter>(file, options);
}

} // namespace qtrace_tool
