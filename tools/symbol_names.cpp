#include "symbol_names.h"

#include "record_schema.h"
#include "symbol_file.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <stdexcept>
#include <utility>

namespace qtrace_tool
{
namespace
{

std::optional<uint64_t> parse_id(std::string_view text)
{
    const bool prefixed = text.starts_with("0x");
    text.remove_prefix(prefixed ? 2 : 0);
    uint64_t value = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value, prefixed ? 16 : 10);
    return error == std::errc{} && stop == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

bool begins_with_scope(std::string_view text)
{
    return text.starts_with("lpid=") || text.starts_with("pid=");
}

// Takes "lpid=1,pid=2" into `file`. False: it is none.
bool take_scope(std::string_view text, Symbol_Options::File &file)
{
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(','));
        text.remove_prefix(std::min(word.size() + 1, text.size()));
        if (!begins_with_scope(word))
            return false;
        std::optional<uint64_t> &id = word[0] == 'l' ? file.lpid : file.pid;
        id = parse_id(word.substr(word.find('=') + 1));
        if (!id)
            return false;
    }
    return true;
}

} // namespace

void Symbol_Options::add(const std::string &argument)
{
    File file{argument, {}, {}, {}};
    if (begins_with_scope(argument)) {
        const size_t colon = argument.find(':');
        if (colon == std::string::npos || !take_scope(std::string_view(argument).substr(0, colon), file))
            throw std::invalid_argument(
                fmt::format("`{}` names no symbols: FILE or lpid=N,pid=N:FILE expected", argument));
        file.name = argument.substr(colon + 1);
    }
    files.push_back(std::move(file));
}

Address_Space::Address_Space(const QTRACE_FILE_HDR *context) : known(context != nullptr)
{
    if (known) {
        lpid = trace::number(context->lpid);
        pid = trace::number(context->pid);
    }
}

bool Symbol_Names::Scope::holds(const Address_Space &space) const
{
    if (!space.known)
        return !lpid && !pid;
    return (!lpid || *lpid == space.lpid) && (!pid || *pid == space.pid);
}

Symbol_Names::Symbol_Names(Tool_Run &run, const Symbol_Options &options)
{
    std::map<std::pair<std::optional<uint64_t>, std::optional<uint64_t>>, std::vector<Symbol>> by_scope;
    for (const Symbol_Options::File &file : options.files) {
        Symbol_File read = read_symbol_file(file.name, file.load_address);
        for (const std::string &remark : read.remarks)
            run.err.print("qtrace: {}\n", remark);
        std::vector<Symbol> &symbols = by_scope[{file.lpid, file.pid}];
        std::ranges::move(read.symbols, std::back_inserter(symbols));
    }
    for (auto &[scope, symbols] : by_scope)
        scopes_.push_back({scope.first, scope.second, Symbol_Table(std::move(symbols))});
    std::ranges::stable_sort(scopes_, std::ranges::greater(), &Scope::specific);
}

void Name_Finder::enter(const Address_Space &space)
{
    if (space_ == space)
        return;
    space_ = space;
    places_.clear();
    for (const Symbol_Names::Scope &scope : names_.scopes_)
        if (scope.holds(space))
            places_.push_back({&scope.table, {}});
}

void Name_Finder::enter_any()
{
    space_.reset();
    places_.clear();
    for (const Symbol_Names::Scope &scope : names_.scopes_)
        places_.push_back({&scope.table, {}});
}

const Symbol *Name_Finder::find(uint64_t address)
{
    for (Place &place : places_) {
        if (!place.last.contains(address))
            place.last = place.table->range_of(address);
        if (place.last.symbol != nullptr)
            return place.last.symbol;
    }
    return nullptr;
}

std::string Name_Finder::text(uint64_t address)
{
    const Symbol *const symbol = find(address);
    return symbol == nullptr ? "" : fmt::format("{}+0x{:x}", symbol->name, address - symbol->first);
}

} // namespace qtrace_tool
