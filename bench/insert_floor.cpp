// What `qtrace export --format sqlite` is measured against: one prepared statement a table in a loop.
//   insert_floor FROM TO   inserts the rows of the database FROM into a new one, in transactions and with settings as the
//                          export has them. Prints rows and nanoseconds of CPU time; reading FROM is not counted.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sqlite3.h>
#include <string>
#include <vector>

namespace
{

struct Value {
    int type;
    int64_t number;
    std::string text;
};

struct Table {
    std::string name;
    int columns = 0;
    std::vector<Value> values; // row by row
};

[[noreturn]] void fail(sqlite3 *database)
{
    std::fprintf(stderr, "%s\n", sqlite3_errmsg(database));
    std::exit(1);
}

sqlite3 *open(const char *name, int flags)
{
    sqlite3 *database = nullptr;
    if (sqlite3_open_v2(name, &database, flags, nullptr) != SQLITE_OK)
        fail(database);
    return database;
}

sqlite3_stmt *prepare(sqlite3 *database, const std::string &command)
{
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(database, command.c_str(), -1, &statement, nullptr) != SQLITE_OK)
        fail(database);
    return statement;
}

void execute(sqlite3 *database, const std::string &commands)
{
    if (sqlite3_exec(database, commands.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
        fail(database);
}

std::vector<std::string> texts(sqlite3 *database, const std::string &query)
{
    std::vector<std::string> rows;
    sqlite3_stmt *statement = prepare(database, query);
    while (sqlite3_step(statement) == SQLITE_ROW)
        rows.emplace_back(reinterpret_cast<const char *>(sqlite3_column_text(statement, 0)));
    sqlite3_finalize(statement);
    return rows;
}

Value value_of(sqlite3_stmt *statement, int column)
{
    Value value{sqlite3_column_type(statement, column), 0, {}};
    if (value.type == SQLITE_INTEGER)
        value.number = sqlite3_column_int64(statement, column);
    else if (value.type == SQLITE_TEXT)
        value.text = reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
    return value;
}

Table read(sqlite3 *database, const std::string &name)
{
    sqlite3_stmt *statement = prepare(database, "SELECT * FROM " + name);
    Table table{name, sqlite3_column_count(statement), {}};
    while (sqlite3_step(statement) == SQLITE_ROW)
        for (int i = 0; i < table.columns; i++)
            table.values.push_back(value_of(statement, i));
    sqlite3_finalize(statement);
    return table;
}

void bind(sqlite3_stmt *statement, int place, const Value &value)
{
    if (value.type == SQLITE_INTEGER)
        sqlite3_bind_int64(statement, place, value.number);
    else if (value.type == SQLITE_TEXT)
        sqlite3_bind_text(statement, place, value.text.data(), static_cast<int>(value.text.size()), SQLITE_STATIC);
    else
        sqlite3_bind_null(statement, place);
}

// The rows of a table, one after the other.
class Insertion
{
public:
    Insertion(sqlite3 *database, const Table &table)
        : database_(database), table_(table), columns_(static_cast<size_t>(table.columns))
    {
        std::string command = "INSERT INTO " + table.name + " VALUES (?";
        for (size_t i = 1; i < columns_; i++)
            command += ",?";
        statement_ = prepare(database, command + ")");
    }
    Insertion(const Insertion &) = delete;
    ~Insertion() { sqlite3_finalize(statement_); }

    bool ended() const { return next_ == table_.values.size(); }
    const Value &next(size_t column) const { return table_.values[next_ + column]; }
    void insert()
    {
        for (size_t i = 0; i < columns_; i++)
            bind(statement_, static_cast<int>(i) + 1, table_.values[next_ + i]);
        if (sqlite3_step(statement_) != SQLITE_DONE)
            fail(database_);
        sqlite3_reset(statement_);
        next_ += columns_;
    }

private:
    sqlite3 *database_;
    const Table &table_;
    size_t columns_, next_ = 0;
    sqlite3_stmt *statement_;
};

// Records, each with its registers, as whoever reads a trace has them; the other tables as they are.
void insert_all(sqlite3 *database, const std::vector<Table> &tables)
{
    const Table *records = nullptr, *registers = nullptr;
    for (const Table &table : tables) {
        records = table.name == "record" ? &table : records;
        registers = table.name == "register" ? &table : registers;
    }
    if (records == nullptr || registers == nullptr) {
        std::fputs("no table of records or of registers\n", stderr);
        std::exit(1);
    }
    for (const Table &table : tables)
        for (Insertion rows(database, table); &table != records && &table != registers && !rows.ended();)
            rows.insert();
    Insertion record(database, *records), of_record(database, *registers);
    while (!record.ended()) {
        const int64_t file = record.next(0).number, number = record.next(1).number;
        record.insert();
        while (!of_record.ended() && of_record.next(0).number == file && of_record.next(1).number == number)
            of_record.insert();
    }
}

int64_t cpu_time()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

} // namespace

int main(int count, char **arguments)
{
    if (count != 3)
        return 2;
    sqlite3 *from = open(arguments[1], SQLITE_OPEN_READONLY);
    std::vector<Table> tables;
    for (const std::string &name : texts(from, "SELECT name FROM sqlite_master WHERE type = 'table'"))
        tables.push_back(read(from, name));
    const std::vector<std::string> schema = texts(from, "SELECT sql FROM sqlite_master WHERE type = 'table'");
    const int64_t begin = cpu_time();
    sqlite3 *to = open(arguments[2], SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    execute(to, "PRAGMA page_size = 16384; PRAGMA journal_mode = off; PRAGMA synchronous = off;"
                "PRAGMA locking_mode = exclusive");
    for (const std::string &command : schema)
        execute(to, command);
    execute(to, "BEGIN");
    size_t rows = 0;
    for (const Table &table : tables)
        rows += table.values.size() / static_cast<size_t>(table.columns);
    insert_all(to, tables);
    execute(to, "COMMIT");
    sqlite3_close(to);
    std::printf("%zu %lld\n", rows, static_cast<long long>(cpu_time() - begin));
    sqlite3_close(from);
    return 0;
}
