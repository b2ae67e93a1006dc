// Symbols as files have them: the symbol table of an ELF file, or a plain map.
#pragma once

#include "symbol_table.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qtrace_tool
{

// What was read from a file.
struct Symbol_File {
    std::vector<Symbol> symbols;
    std::vector<std::string> remarks; // what a reader of the names should know: "FILE: ..."
};

// Reads an ELF file of either byte order and word length, or a map with lines of `ADDRESS [SIZE] [TYPE] NAME` as nm
// prints them. `load_address`: where the lowest segment of the ELF file was put. Throws std::runtime_error,
// "FILE: REASON".
//
// A symbol without a size reaches to the next symbol of the file; the last one to the end of its section (of a map:
// of its 4 KiB). It names nothing where a symbol with a size covers its beginning.
Symbol_File read_symbol_file(const std::string &name, std::optional<uint64_t> load_address);

// The same for the text of a map.
Symbol_File read_symbol_map(const std::string &name, std::string_view text);

} // namespace qtrace_tool
