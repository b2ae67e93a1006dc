// A database of records, headers, distinct translations and registers.
#include "exporter.h"

#include "address_view.h"
#include "instruction_kinds.h"

#include <map>
#include <optional>
#include <sqlite3.h>
#include <stdexcept>
#include <tuple>
#include <unordered_map>

namespace qtrace_tool
{
namespace
{

using namespace trace;

// SQLite has signed numbers only: those of 64 bits keep their bits, and the views show them in hexadecimal.
constexpr const char *TABLES = R"(
PRAGMA page_size = 16384; PRAGMA journal_mode = off; PRAGMA synchronous = off; PRAGMA locking_mode = exclusive;
CREATE TABLE meta (key TEXT PRIMARY KEY, value TEXT) WITHOUT ROWID;
CREATE TABLE file (file INTEGER PRIMARY KEY, name TEXT);
CREATE TABLE header (file INTEGER, number INTEGER, record INTEGER, address INTEGER, ptcr INTEGER, lpid INTEGER,
    pid INTEGER, sdr1 INTEGER, comment TEXT, PRIMARY KEY (file, number)) WITHOUT ROWID;
CREATE TABLE record (file INTEGER, number INTEGER, address INTEGER, word INTEGER, kinds INTEGER, flags INTEGER,
    lpid INTEGER, pid INTEGER, next INTEGER, next_translation INTEGER, data INTEGER, data_translation INTEGER,
    length INTEGER, error INTEGER, PRIMARY KEY (file, number)) WITHOUT ROWID;
CREATE TABLE translation (id INTEGER PRIMARY KEY, guest_mode TEXT, host_mode TEXT, page_number INTEGER,
    page_size INTEGER, guest_page_size INTEGER, vsid INTEGER, guest_depth INTEGER, host_depth INTEGER);
CREATE TABLE register (file INTEGER, record INTEGER, output INTEGER, class TEXT, number INTEGER, value INTEGER,
    second_value INTEGER);
CREATE TABLE kind (bit INTEGER PRIMARY KEY, name TEXT);
CREATE TABLE symbol (id INTEGER PRIMARY KEY, name TEXT, first INTEGER, last INTEGER, source TEXT);
CREATE TABLE record_symbol (file INTEGER, number INTEGER, symbol INTEGER, next_symbol INTEGER, data_symbol INTEGER,
    PRIMARY KEY (file, number)) WITHOUT ROWID;
CREATE VIEW record_name AS SELECT r.file, r.number,
    s.name || printf('+0x%x', r.address - s.first) AS symbol,
    n.name || printf('+0x%x', r.next - n.first) AS next_symbol,
    d.name || printf('+0x%x', r.data - d.first) AS data_symbol
    FROM record r JOIN record_symbol USING (file, number) LEFT JOIN symbol s ON s.id = record_symbol.symbol
    LEFT JOIN symbol n ON n.id = record_symbol.next_symbol LEFT JOIN symbol d ON d.id = record_symbol.data_symbol;
CREATE VIEW record_hex AS SELECT file, number, printf('0x%016x', address) AS address, printf('0x%08x', word) AS word,
    (SELECT group_concat(name, ' ') FROM kind WHERE kinds & bit) AS kinds, lpid, pid,
    CASE WHEN next IS NOT NULL THEN printf('0x%016x', next) END AS next,
    CASE WHEN data IS NOT NULL THEN printf('0x%016x', data) END AS data, length, error FROM record;
CREATE VIEW register_hex AS SELECT file, record, output, class, number, printf('0x%016x', value) AS value,
    CASE WHEN second_value IS NOT NULL THEN printf('0x%016x', second_value) END AS second_value FROM register;
BEGIN;
)";

constexpr const char *INDEXES = R"(
CREATE INDEX record_by_address ON record (address);
CREATE INDEX record_by_data ON record (data) WHERE data IS NOT NULL;
CREATE INDEX register_by_record ON register (file, record);
)";

struct Closer {
    void operator()(sqlite3 *database) const { sqlite3_close(database); }
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};

// Inserting rows takes twenty times as long as reading them: other threads could do nothing for it.
class Sqlite_Exporter : public Exporter, public Export_Part
{
public:
    Sqlite_Exporter(Output_File &file, const Export_Options &options);
    void begin_file(const std::string &name) override;
    Export_Part *in_order() override { return this; }
    void header(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) override;
    void record(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) override;
    void finish() override;

private:
    using Statement = std::unique_ptr<sqlite3_stmt, Closer>;
    using Number = std::optional<uint64_t>;
    using Translation = std::tuple<unsigned, uint8_t, uint32_t, uint8_t, uint8_t, uint64_t, uint8_t, uint8_t>;

    void check(int code) const
    {
        if (code != SQLITE_OK) [[unlikely]]
            fail();
    }
    [[noreturn]] void fail() const;
    void execute(const char *commands) const
    {
        check(sqlite3_exec(database_.get(), commands, nullptr, nullptr, nullptr));
    }
    // INSERT INTO `table` with so many values.
    Statement insertion(const char *table, unsigned values) const;
    void bind(sqlite3_stmt *statement, int place, const Number &number) const
    {
        check(number ? sqlite3_bind_int64(statement, place, static_cast<sqlite3_int64>(*number))
                     : sqlite3_bind_null(statement, place));
    }
    // The text has to live until the row is inserted.
    void bind(sqlite3_stmt *statement, int place, std::string_view text) const;
    // Binds the values from the first place on, and inserts the row.
    template <class... Values> void insert(const Statement &statement, const Values &...values) const
    {
        int place = 0;
        (bind(statement.get(), ++place, values), ...);
        finish_row(statement);
    }
    void finish_row(const Statement &statement) const
    {
        sqlite3_step(statement.get());
        check(sqlite3_reset(statement.get()));
    }
    Number translation_row(const Translated_Address &address);
    Number symbol_row(bool known, uint64_t address);
    void insert_symbols(const QTRACE_Item &item, const QTRACE_FILE_HDR *context);
    void insert_registers(const QTRACE_Item &item) const;

    Output_File &output_;
    bool index_;
    std::unique_ptr<sqlite3, Closer> database_;
    Statement insert_header_, insert_record_, insert_translation_, insert_register_, insert_symbol_,
        insert_record_symbol_;
    struct Translation_Hash {
        size_t operator()(const Translation &translation) const
        {
            const auto &[modes, pieces, page, page_size, guest_page_size, vsid, guest_depth, host_depth] =
                translation;
            const uint64_t rest = modes + (uint64_t{pieces} << 8) + (uint64_t{page_size} << 16) +
                                  (uint64_t{guest_page_size} << 24) + (uint64_t{guest_depth} << 32) +
                                  (uint64_t{host_depth} << 40);
            return (page * 0x9E3779B97F4A7C15u) ^ (vsid * 0xC2B2AE3D27D4EB4Fu) ^ (rest * 0x165667B19E3779F9u);
        }
    };
    std::unordered_map<Translation, uint64_t, Translation_Hash> translations_;
    Name_Finder names_;
    std::map<const Symbol *, uint64_t> symbols_; // rows of them
    uint64_t file_ = 0, records_ = 0;
};

void Sqlite_Exporter::fail() const
{
    throw std::runtime_error(output_.name() + ": " + sqlite3_errmsg(database_.get()));
}

Sqlite_Exporter::Statement Sqlite_Exporter::insertion(const char *table, unsigned values) const
{
    std::string command = fmt::format("INSERT INTO {} VALUES (?", table);
    for (unsigned i = 1; i < values; i++)
        command += ",?";
    sqlite3_stmt *statement = nullptr;
    check(sqlite3_prepare_v2(database_.get(), (command + ")").c_str(), -1, &statement, nullptr));
    return Statement(statement);
}

void Sqlite_Exporter::bind(sqlite3_stmt *statement, int place, std::string_view text) const
{
    check(text.data() == nullptr
              ? sqlite3_bind_null(statement, place)
              : sqlite3_bind_text(statement, place, text.data(), static_cast<int>(text.size()), SQLITE_STATIC));
}

Sqlite_Exporter::Sqlite_Exporter(Output_File &file, const Export_Options &options)
    : output_(file), index_(options.index), names_(*options.names)
{
    sqlite3 *database = nullptr;
    const int code =
        sqlite3_open_v2(file.path().c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(database);
    check(code);
    execute(TABLES);
    insert_header_ = insertion("header", 9);
    insert_record_ = insertion("record", 14);
    insert_translation_ = insertion("translation", 9);
    insert_register_ = insertion("register", 7);
    insert_symbol_ = insertion("symbol", 5);
    insert_record_symbol_ = insertion("record_symbol", 5);
    const Statement kind = insertion("kind", 2);
    for (const Kind_Name &row : KINDS)
        insert(kind, Number(row.kind), row.name);
}

void Sqlite_Exporter::begin_file(const std::string &name)
{
    insert(insertion("file", 2), Number(file_++), std::string_view(name));
}

void Sqlite_Exporter::header(const QTRACE_Item &item, const QTRACE_FILE_HDR *)
{
    const QTRACE_FILE_HDR &header = item.header;
    const auto &flags = header.sec_ext_controlword.control.fld;
    const auto number_if = [](bool present, uint64_t value) { return present ? Number(value) : std::nullopt; };
    const bool text = header.comment != nullptr;
    insert(insert_header_, Number(file_ - 1), Number(item.header_number), Number(item.record_number),
           number_if(header.control.iar_is_present, number(header.iar)),
           number_if(flags.ptcr_is_present, number(header.ptcr)),
           number_if(flags.lpid_is_present, number(header.lpid)),
           number_if(flags.pid_is_present, number(header.pid)),
           number_if(header.control.sdr1_is_present, number(header.sdr1)),
           text ? std::string_view(header.comment, header.comment_length) : std::string_view());
}

Sqlite_Exporter::Number Sqlite_Exporter::translation_row(const Translated_Address &address)
{
    if (!address.present)
        return std::nullopt;
    const Translation key{address.modes.index(),   address.pieces, address.page_number, address.page_size,
                          address.guest_page_size, address.vsid,   address.guest_depth, address.host_depth};
    const auto [row, is_new] = translations_.try_emplace(key, translations_.size() + 1);
    if (!is_new)
        return row->second;
    const auto piece = [&](Piece which, uint64_t value) {
        return (address.pieces & which) != 0 ? Number(value) : std::nullopt;
    };
    insert(insert_translation_, Number(row->second), mode_word(address.modes.guest), mode_word(address.modes.host),
           piece(PIECE_RPN, address.page_number), piece(PIECE_PAGE, address.page_size),
           piece(PIECE_GUEST_PAGE, address.guest_page_size), piece(PIECE_VSID, address.vsid),
           Number(address.guest_depth), Number(address.host_depth));
    return row->second;
}

// What is bound stays bound from row to row.
void Sqlite_Exporter::insert_registers(const QTRACE_Item &item) const
{
    sqlite3_stmt *const row = insert_register_.get();
    bind(row, 1, Number(file_ - 1));
    bind(row, 2, Number(item.record_number));
    for (const Register_Class &kind : REGISTER_CLASSES) {
        if (kind.held(item.record.regs) == 0)
            continue;
        bind(row, 3, Number(kind.output));
        bind(row, 4, kind.letter);
        for (unsigned i = 0; i < kind.entries(item.record.regs); i++) {
            const Register_Entry entry = register_entry(kind, item.record.regs, i);
            bind(row, 5, Number(entry.index));
            bind(row, 6, Number(entry.value[0]));
            bind(row, 7, kind.words == 2 ? Number(entry.value[1]) : std::nullopt);
            finish_row(insert_register_);
        }
    }
}

Sqlite_Exporter::Number Sqlite_Exporter::symbol_row(bool known, uint64_t address)
{
    const Symbol *const symbol = known ? names_.find(address) : nullptr;
    if (symbol == nullptr)
        return std::nullopt;
    const auto [row, is_new] = symbols_.try_emplace(symbol, symbols_.size() + 1);
    if (is_new)
        insert(insert_symbol_, Number(row->second), std::string_view(symbol->name), Number(symbol->first),
               Number(symbol->last), std::string_view(*symbol->file));
    return row->second;
}

void Sqlite_Exporter::insert_symbols(const QTRACE_Item &item, const QTRACE_FILE_HDR *context)
{
    if (!names_.any())
        return;
    names_.enter(context);
    const Translated_Address next = next_address_of(item.record), data = data_address_of(item.record);
    const Number own = symbol_row(item.address_known, item.address);
    const Number of_next = symbol_row(next.present, next.address);
    insert(insert_record_symbol_, Number(file_ - 1), Number(item.record_number), own, of_next,
           symbol_row(data.present, data.address));
}

void Sqlite_Exporter::record(const QTRACE_Item &item, const QTRACE_FILE_HDR *context)
{
    const QTRACE_RECORD &record = item.record;
    const auto &flags = record.header.control.fld;
    const Translated_Address next = next_address_of(record), data = data_address_of(record);
    const auto number_if = [](bool present, uint64_t value) { return present ? Number(value) : std::nullopt; };
    insert(insert_record_, Number(file_ - 1), Number(item.record_number),
           number_if(item.address_known, item.address), Number(record.header.instruction),
           Number(kinds_of(record, item.address)), Number(flags_of(record).control),
           context != nullptr ? Number(number(context->lpid)) : std::nullopt,
           context != nullptr ? Number(number(context->pid)) : std::nullopt, number_if(next.present, next.address),
           translation_row(next), number_if(data.present, data.address), translation_row(data),
           number_if(flags.length_present, record.length),
           number_if(flags.trace_error_code_present, record.error_code));
    insert_registers(item);
    insert_symbols(item, context);
    records_++;
}

void Sqlite_Exporter::finish()
{
    const Statement meta = insertion("meta", 2);
    insert(meta, std::string_view("producer"), std::string_view("qtrace export"));
    insert(meta, std::string_view("records"), std::string_view(std::to_string(records_)));
    execute("COMMIT;");
    if (index_)
        execute(INDEXES);
}

} // namespace

std::unique_ptr<Exporter> make_sqlite_exporter(Output_File &file, const Export_Options &options)
{
    return std::make_unique<Sqlite_Exporter>(file, options);
}

} // namespace qtrace_tool
