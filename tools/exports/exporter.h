// What an output format is to `qtrace export`: a sink of records, and a row in EXPORT_FORMATS.
#pragma once

#include "output_file.h"
#include "output_folder.h"
#include "qtrace_reader.h"
#include "symbol_names.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qtrace_tool
{

struct Export_Options {
    std::vector<std::string> fields; // of csv
    bool decimal = false;            // numbers of csv in decimal
    bool real = false;               // real addresses in champsim
    bool index = false;              // sqlite: with indexes
    std::vector<std::string> files;  // that will be read, in this order
    const Symbol_Names *names;       // of addresses; there may be none
};

// Gets the items of a group of blocks, or of whole files, in file order. Members that throw end the export; the output
// is dropped.
class Export_Part
{
public:
    virtual ~Export_Part() = default;
    // `context`: the header in force, null before any.
    virtual void header(const QTRACE_Item &item, const QTRACE_FILE_HDR *context)
    {
        static_cast<void>(item);
        static_cast<void>(context);
    }
    virtual void record(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) = 0;
    // Before the item after them: so many records (1 when it is not known) from this number on are missing.
    virtual void lost(uint64_t first, uint64_t count)
    {
        static_cast<void>(first);
        static_cast<void>(count);
    }
    // About how many bytes it holds.
    virtual size_t size() const { return 0; }
};

// Gets one file after the other, either as parts that other threads have filled, or item by item.
class Exporter
{
public:
    virtual ~Exporter() = default;
    virtual void begin_file(const std::string &name) { static_cast<void>(name); }
    // A part for some blocks of that file. Called on any thread, while other parts are filled and added.
    virtual std::unique_ptr<Export_Part> make_part() const { return nullptr; }
    // The parts that make_part() has made, filled, in file order.
    virtual void add(Export_Part &part) { static_cast<void>(part); }
    // For a format without parts: takes all items itself.
    virtual Export_Part *in_order() { return nullptr; }
    virtual void finish() {}
    // Sentences about what the format cannot say of this trace; empty when nothing was left out.
    virtual std::vector<std::string> shortcomings() const { return {}; }
};

// A format that is one file, or one that is a folder of files: the other function is null.
struct Export_Format {
    std::string_view name;
    std::string_view summary;
    std::unique_ptr<Exporter> (*make)(Output_File &file, const Export_Options &options);
    std::unique_ptr<Exporter> (*make_folder)(Output_Folder &folder, const Export_Options &options);
};

std::unique_ptr<Exporter> make_csv_exporter(Output_File &file, const Export_Options &options);
std::unique_ptr<Exporter> make_champsim_exporter(Output_File &file, const Export_Options &options);
std::unique_ptr<Exporter> make_sqlite_exporter(Output_File &file, const Export_Options &options);
std::unique_ptr<Exporter> make_callgrind_exporter(Output_File &file, const Export_Options &options);
std::unique_ptr<Exporter> make_ctf_exporter(Output_Folder &folder, const Export_Options &options);

} // namespace qtrace_tool
