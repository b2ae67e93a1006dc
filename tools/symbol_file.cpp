#include "symbol_file.h"

#include "tool_output.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <gelf.h>
#include <limits>
#include <stdexcept>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace qtrace_tool
{
namespace
{

constexpr uint64_t MAP_PAGE = 4096;

[[noreturn]] void refuse(const std::string &name, const std::string &reason)
{
    throw std::runtime_error(name + ": " + reason);
}

// ---- The symbols of a file -----------------------------------------------------------------------------

// Collects them, and finds out where those without a size end.
class Symbol_Collection
{
public:
    explicit Symbol_Collection(const std::string &name) : file_(std::make_shared<const std::string>(name)) {}
    // `size` 0: not known, and `limit` is the last address that may belong to the symbol.
    void add(std::string_view name, uint64_t first, uint64_t size, uint64_t limit, uint8_t rank);
    bool all_at_zero() const;
    // "FILE: 3 of 9 symbols WHAT"; empty when there are none of them.
    std::string remark(size_t count, const char *what) const;
    size_t without_size() const;
    // Those that begin within another one; not counted are several names of the same addresses.
    size_t overlapping() const;
    std::vector<Symbol> take();
    size_t size() const { return entries_.size(); }

private:
    struct Entry {
        Symbol symbol; // without a size: `last` is the last address that it can have
        bool sized;
    };
    void end_at_next();

    std::shared_ptr<const std::string> file_;
    std::vector<Entry> entries_;
};

void Symbol_Collection::add(std::string_view name, uint64_t first, uint64_t size, uint64_t limit, uint8_t rank)
{
    const uint64_t last = size == 0 ? limit : first + (size - 1);
    if (last >= first)
        entries_.push_back({{std::string(name), first, last, rank, file_}, size != 0});
}

bool Symbol_Collection::all_at_zero() const
{
    return std::ranges::all_of(entries_, [](const Entry &entry) { return entry.symbol.first == 0; });
}

std::string Symbol_Collection::remark(size_t count, const char *what) const
{
    return count == 0 ? ""
                      : fmt::format("{}: {} of {} {}", *file_, count, counted(entries_.size(), "symbol"), what);
}

size_t Symbol_Collection::without_size() const
{
    return static_cast<size_t>(std::ranges::count(entries_, false, &Entry::sized));
}

size_t Symbol_Collection::overlapping() const
{
    std::vector<std::pair<uint64_t, uint64_t>> sized;
    for (const Entry &entry : entries_)
        if (entry.sized)
            sized.emplace_back(entry.symbol.first, entry.symbol.last);
    std::ranges::sort(sized);
    sized.erase(std::unique(sized.begin(), sized.end()), sized.end());
    size_t count = 0;
    for (uint64_t covered = 0; const auto &[first, last] : sized) {
        count += first <= covered && covered != 0;
        covered = std::max(covered, last);
    }
    return count;
}

void Symbol_Collection::end_at_next()
{
    uint64_t next = 0; // where a symbol begins that follows; 0: nowhere
    for (size_t i = entries_.size(); i-- > 0;) {
        Symbol &symbol = entries_[i].symbol;
        if (i + 1 < entries_.size() && entries_[i + 1].symbol.first != symbol.first)
            next = entries_[i + 1].symbol.first;
        if (!entries_[i].sized && next != 0)
            symbol.last = std::min(symbol.last, next - 1);
    }
}

std::vector<Symbol> Symbol_Collection::take()
{
    std::ranges::stable_sort(entries_, {},
                             [](const Entry &entry) { return std::pair(entry.symbol.first, !entry.sized); });
    end_at_next();
    std::vector<Symbol> symbols;
    bool any_sized = false;
    for (uint64_t covered = 0; Entry & entry : entries_) {
        if (!entry.sized && any_sized && covered >= entry.symbol.first)
            continue;
        any_sized |= entry.sized;
        covered = entry.sized ? std::max(covered, entry.symbol.last) : covered;
        symbols.push_back(std::move(entry.symbol));
    }
    return symbols;
}

// ---- Maps ----------------------------------------------------------------------------------------------

std::optional<uint64_t> hexadecimal(std::string_view text)
{
    if (text.starts_with("0x") || text.starts_with("0X"))
        text.remove_prefix(2);
    uint64_t value = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    const bool all = error == std::errc{} && stop == text.data() + text.size();
    return all ? std::optional(value) : std::nullopt;
}

// Takes the first word from `text`, and the blanks after it.
std::string_view next_word(std::string_view &text)
{
    const auto blank = [](char c) { return c == ' ' || c == '\t'; };
    const auto end = std::ranges::find_if(text, blank);
    const std::string_view word(text.begin(), end);
    text = std::string_view(std::find_if_not(end, text.end(), blank), text.end());
    return word;
}

struct Map_Line {
    std::optional<uint64_t> first;
    uint64_t size = 0;
    char type = 'T';
    std::string_view name;
};

bool is_type(std::string_view word)
{
    return word.size() == 1 && std::isalpha(static_cast<unsigned char>(word[0])) != 0;
}

Map_Line parse_map_line(std::string_view text)
{
    Map_Line line;
    line.first = hexadecimal(next_word(text));
    std::string_view rest = text;
    const std::string_view second = next_word(rest);
    std::string_view after = rest;
    const std::string_view third = next_word(after);
    line.name = text;
    if (is_type(second) && !rest.empty()) {
        line.type = second[0];
        line.name = rest;
    } else if (const auto size = hexadecimal(second); size && is_type(third) && !after.empty()) {
        line.size = *size;
        line.type = third[0];
        line.name = after;
    }
    return line;
}

// Undefined symbols, numbers that are no addresses, symbols for debuggers.
bool names_address(char type)
{
    return std::string_view("UAaNn-").find(type) == std::string_view::npos;
}

enum : uint8_t { GLOBAL, WEAK, LOCAL, RANKS };

uint8_t rank_of(char type)
{
    if (std::string_view("VvWw").find(type) != std::string_view::npos)
        return WEAK;
    return std::isupper(static_cast<unsigned char>(type)) != 0 ? GLOBAL : LOCAL;
}

std::string_view trimmed(std::string_view line)
{
    const size_t first = line.find_first_not_of(" \t\r");
    const size_t last = line.find_last_not_of(" \t\r");
    return first == std::string_view::npos ? std::string_view() : line.substr(first, last - first + 1);
}

// "                 U name", as nm prints what a file takes from another.
bool is_undefined(std::string_view line)
{
    const std::string_view type = next_word(line);
    return (type == "U" || type == "w" || type == "v") && !line.empty();
}

void add_map_line(Symbol_Collection &symbols, const std::string &name, size_t number, std::string_view text)
{
    const std::string_view shown = trimmed(text);
    if (shown.empty() || shown.starts_with('#') || is_undefined(shown))
        return;
    const Map_Line line = parse_map_line(shown);
    if (!line.first || line.name.empty())
        refuse(name, fmt::format("line {}: `{}` is not a symbol: ADDRESS [SIZE] [TYPE] NAME expected", number,
                                 shown.substr(0, 80)));
    if (names_address(line.type))
        symbols.add(line.name, *line.first, line.size, *line.first | (MAP_PAGE - 1), rank_of(line.type));
}

} // namespace

Symbol_File read_symbol_map(const std::string &name, std::string_view text)
{
    Symbol_Collection symbols(name);
    for (size_t number = 1; !text.empty(); number++) {
        const size_t end = std::min(text.find('\n'), text.size());
        add_map_line(symbols, name, number, text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    if (symbols.size() == 0)
        refuse(name, "no symbols");
    if (symbols.size() > 1 && symbols.all_at_zero())
        refuse(name, "every address is 0; does the system hide them?");
    return {symbols.take(), {}};
}

// ---- ELF files -----------------------------------------------------------------------------------------

namespace
{

class Descriptor
{
public:
    explicit Descriptor(const std::string &name) : number_(open(name.c_str(), O_RDONLY | O_CLOEXEC))
    {
        if (number_ < 0)
            refuse(name, std::strerror(errno));
    }
    ~Descriptor() { close(number_); }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int number() const { return number_; }

private:
    int number_;
};

struct Section {
    Elf_Scn *scn;
    GElf_Shdr header;
};

class Elf_File
{
public:
    Elf_File(const std::string &name, int descriptor, std::optional<uint64_t> load_address);
    Symbol_File read();

private:
    struct Closer {
        void operator()(Elf *elf) const { elf_end(elf); }
    };
    template <class Value> Value check(Value value) const
    {
        if (!value)
            refuse(name_, elf_errmsg(-1));
        return value;
    }
    void find_sections();
    uint64_t displacement(uint64_t load_address) const;
    const Section *symbol_section() const;
    void add(const Section &table, const GElf_Sym &symbol, Symbol_Collection &symbols) const;
    std::optional<uint64_t> code_address(const Section &descriptors, uint64_t address) const;

    std::string name_;
    std::unique_ptr<Elf, Closer> elf_;
    GElf_Ehdr header_{};
    std::vector<Section> sections_; // by number; 0 is there too
    size_t descriptors_ = 0;        // number of the section of function descriptors; 0: there is none
    uint64_t displacement_ = 0;
};

Elf_File::Elf_File(const std::string &name, int descriptor, std::optional<uint64_t> load_address) : name_(name)
{
    elf_version(EV_CURRENT);
    elf_.reset(check(elf_begin(descriptor, ELF_C_READ, nullptr)));
    check(gelf_getehdr(elf_.get(), &header_));
    if (header_.e_type == ET_REL)
        refuse(name_, "is not linked: its symbols have no addresses yet");
    find_sections();
    if (load_address)
        displacement_ = displacement(*load_address);
}

void Elf_File::find_sections()
{
    size_t names = 0;
    if (elf_getshdrstrndx(elf_.get(), &names) != 0)
        refuse(name_, elf_errmsg(-1));
    sections_.push_back({nullptr, {}});
    for (Elf_Scn *scn = elf_nextscn(elf_.get(), nullptr); scn != nullptr; scn = elf_nextscn(elf_.get(), scn)) {
        GElf_Shdr header;
        check(gelf_getshdr(scn, &header));
        const char *const name = elf_strptr(elf_.get(), names, header.sh_name);
        if (name != nullptr && std::string_view(name) == ".opd" && header.sh_type == SHT_PROGBITS)
            descriptors_ = sections_.size();
        sections_.push_back({scn, header});
    }
}

// How far the file was moved from where it was linked.
uint64_t Elf_File::displacement(uint64_t load_address) const
{
    size_t count = 0;
    uint64_t lowest = std::numeric_limits<uint64_t>::max();
    elf_getphdrnum(elf_.get(), &count);
    for (size_t i = 0; i < count; i++)
        if (GElf_Phdr segment;
            gelf_getphdr(elf_.get(), static_cast<int>(i), &segment) != nullptr && segment.p_type == PT_LOAD)
            lowest = std::min(lowest, segment.p_vaddr);
    if (lowest == std::numeric_limits<uint64_t>::max())
        refuse(name_, "has no segments that are loaded, so that a load address means nothing");
    return load_address - lowest;
}

// The whole table, or that of the dynamic linker when the other one was stripped; null without any.
const Section *Elf_File::symbol_section() const
{
    for (const GElf_Word type : {SHT_SYMTAB, SHT_DYNSYM}) {
        const auto found = std::ranges::find_if(
            sections_, [type](const Section &one) { return one.scn != nullptr && one.header.sh_type == type; });
        if (found != sections_.end())
            return &*found;
    }
    return nullptr;
}

// The address of the code that a function descriptor names: its first word.
std::optional<uint64_t> Elf_File::code_address(const Section &descriptors, uint64_t address) const
{
    const Elf_Data *const data = elf_rawdata(descriptors.scn, nullptr);
    const uint64_t offset = address - descriptors.header.sh_addr;
    if (data == nullptr || data->d_buf == nullptr || data->d_size < 8 || offset > data->d_size - 8)
        return std::nullopt;
    const auto *const bytes = static_cast<const uint8_t *>(data->d_buf) + offset;
    uint64_t value = 0;
    for (unsigned i = 0; i < 8; i++)
        value = value << 8 | bytes[header_.e_ident[EI_DATA] == ELFDATA2MSB ? i : 7 - i];
    return value != 0 ? std::optional(value) : std::nullopt;
}

uint8_t rank_of(const GElf_Sym &symbol)
{
    // A symbol with a type is a better name than a bare label.
    const uint8_t label = GELF_ST_TYPE(symbol.st_info) == STT_NOTYPE ? RANKS : GLOBAL;
    const unsigned binding = GELF_ST_BIND(symbol.st_info);
    const uint8_t visible = binding == STB_LOCAL ? LOCAL : binding == STB_WEAK ? WEAK : GLOBAL;
    return static_cast<uint8_t>(label + visible);
}

bool is_named_place(const GElf_Sym &symbol)
{
    const unsigned type = GELF_ST_TYPE(symbol.st_info);
    return type == STT_FUNC || type == STT_OBJECT || type == STT_NOTYPE || type == STT_GNU_IFUNC;
}

void Elf_File::add(const Section &table, const GElf_Sym &symbol, Symbol_Collection &symbols) const
{
    if (!is_named_place(symbol) || symbol.st_shndx == SHN_UNDEF || symbol.st_shndx >= sections_.size())
        return;
    const Section &home = sections_[symbol.st_shndx];
    if ((home.header.sh_flags & SHF_ALLOC) == 0)
        return;
    const std::string_view name = check(elf_strptr(elf_.get(), table.header.sh_link, symbol.st_name));
    if (name.empty() || name.starts_with(".L"))
        return;
    uint64_t first = symbol.st_value, limit = home.header.sh_addr + (home.header.sh_size - 1);
    if (symbol.st_shndx == descriptors_) {
        const std::optional<uint64_t> code = code_address(home, first);
        if (!code)
            return;
        first = *code;
        limit = first | (MAP_PAGE - 1);
    }
    if (symbol.st_size != 0 || (limit >= first && home.header.sh_size != 0))
        symbols.add(name, first + displacement_, symbol.st_size, limit + displacement_, rank_of(symbol));
}

Symbol_File Elf_File::read()
{
    const Section *const table = symbol_section();
    if (table == nullptr)
        refuse(name_, "no symbols: the file was stripped");
    Elf_Data *const data = check(elf_getdata(table->scn, nullptr));
    Symbol_Collection symbols(name_);
    GElf_Sym symbol;
    for (int i = 1; gelf_getsym(data, i, &symbol) != nullptr; i++)
        add(*table, symbol, symbols);
    if (symbols.size() == 0)
        refuse(name_, "no symbols of code or data");
    Symbol_File file;
    if (table->header.sh_type == SHT_DYNSYM)
        file.remarks.push_back(name_ + ": stripped, only the symbols of the dynamic linker are left");
    file.remarks.push_back(symbols.remark(symbols.without_size(), "have no size; they reach to the next one"));
    file.remarks.push_back(
        symbols.remark(symbols.overlapping(), "begin within another one; the last to begin counts"));
    std::erase(file.remarks, "");
    file.symbols = symbols.take();
    return file;
}

// All that can be read from here on.
std::string rest_of(const std::string &name, int descriptor)
{
    std::string text;
    char buffer[65536];
    for (;;) {
        const ssize_t count = ::read(descriptor, buffer, sizeof buffer);
        if (count < 0)
            refuse(name, std::strerror(errno));
        if (count == 0)
            return text;
        text.append(buffer, static_cast<size_t>(count));
    }
}

} // namespace

Symbol_File read_symbol_file(const std::string &name, std::optional<uint64_t> load_address)
{
    const Descriptor file(name);
    char magic[SELFMAG];
    if (pread(file.number(), magic, sizeof magic, 0) == SELFMAG && std::memcmp(magic, ELFMAG, SELFMAG) == 0)
        return Elf_File(name, file.number(), load_address).read();
    if (load_address)
        refuse(name, "is no ELF file: the addresses of a map are those of the program as it runs");
    return read_symbol_map(name, rest_of(name, file.number()));
}

} // namespace qtrace_tool
