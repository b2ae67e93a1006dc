#include "pte_printer.h"

#include "json_writer.h"
#include "pte_file.h"

#include <array>
#include <cerrno>
#include <cstring>

namespace qtrace_tool
{
namespace
{

constexpr size_t MOST_WORDS = 5;
using Words = std::array<uint64_t, MOST_WORDS>;

class Pte_Printer
{
public:
    Pte_Printer(Tool_Run &run, const std::string &name, const Pte_Kind &kind, std::string &error)
        : run_(run), name_(name), kind_(kind), file_(name, error)
    {
    }
    bool is_open() const { return file_.is_open(); }
    void print(uint64_t first, uint64_t count);

private:
    uint64_t whole_accesses() const { return file_.bytes() / access_bytes(); }
    uint64_t access_bytes() const { return kind_.members.size() * sizeof(uint64_t); }
    bool read(Words &words);
    void print_text(uint64_t number, const Words &words);
    void print_json(uint64_t number, const Words &words);
    void note_wrong_kind(uint64_t number, const Words &words);
    void report_end(uint64_t shown_to);

    Tool_Run &run_;
    const std::string &name_;
    const Pte_Kind &kind_;
    Pte_File file_;
    bool wrong_kind_ = false;
};

bool Pte_Printer::read(Words &words)
{
    for (size_t i = 0; i < kind_.members.size(); i++)
        if (!file_.next(words[i]))
            return false;
    return true;
}

void Pte_Printer::print_text(uint64_t number, const Words &words)
{
    run_.out.put_padded(number, 10);
    size_t word = 0;
    for (const char *c = kind_.format; *c != '\0'; c++)
        *c == '#' ? run_.out.put_hex(words[word++], 16) : run_.out.put(*c);
    run_.out.put('\n');
}

void Pte_Printer::print_json(uint64_t number, const Words &words)
{
    Json_Writer json(run_.out);
    json.line([&] {
        json.member("file", name_);
        json.member("access", number);
        for (size_t i = 0; i < kind_.members.size(); i++)
            json.member(kind_.members[i], Json_Hex{words[i]});
    });
}

// Once for each file: what follows is shifted as well.
void Pte_Printer::note_wrong_kind(uint64_t number, const Words &words)
{
    for (size_t i = 0; i < kind_.members.size() && !wrong_kind_; i++)
        if ((kind_.addresses >> i & 1) != 0 && !is_real_address(words[i])) {
            run_.warn(fmt::format("{}: access {}: {} is 0x{:x}, which is no real address: not all accesses are {}",
                                  name_, number, kind_.members[i], words[i], kind_.name));
            wrong_kind_ = true;
        }
}

void Pte_Printer::report_end(uint64_t shown_to)
{
    const uint64_t rest = file_.bytes() % access_bytes();
    if (file_.failed())
        run_.fail(fmt::format("{}: {}", name_, std::strerror(errno)));
    else if (shown_to == whole_accesses() && rest != 0)
        run_.warn(fmt::format("{}: offset {}: {} left, no whole access of {} bytes", name_, file_.bytes() - rest,
                              counted(rest, "byte"), access_bytes()));
}

void Pte_Printer::print(uint64_t first, uint64_t count)
{
    if (first > 0 && first >= whole_accesses()) {
        run_.fail(fmt::format("{}: no access {}: the file has {}", name_, first, whole_accesses()));
        return;
    }
    file_.seek(first * kind_.members.size());
    uint64_t number = first;
    for (Words words{}; number - first < count && read(words); number++) {
        run_.show([&] { print_text(number, words); }, [&] { print_json(number, words); });
        note_wrong_kind(number, words);
        run_.out.settle();
    }
    report_end(number);
}

} // namespace

const std::vector<Pte_Kind> &pte_kinds()
{
    static const std::vector<Pte_Kind> kinds = {
        {"radix",
         {"directory_1", "directory_2", "directory_3", "entry", "address"},
         " directories # # # entry # address #",
         0b11111},
        {"hpt", {"address", "upper", "lower"}, " address # entry # #", 0b001},
        {"words", {"word"}, " #", 0},
    };
    return kinds;
}

std::vector<std::string> pte_kind_names()
{
    std::vector<std::string> names;
    for (const Pte_Kind &kind : pte_kinds())
        names.emplace_back(kind.name);
    return names;
}

void dump_pte(Tool_Run &run, const std::string &name, const Pte_Kind &kind, uint64_t first, uint64_t count)
{
    std::string error;
    Pte_Printer printer(run, name, kind, error);
    if (printer.is_open())
        printer.print(first, count);
    else
        run.fail(error);
}

} // namespace qtrace_tool
