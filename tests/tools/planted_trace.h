// A small trace that keeps every rule, to have one thing changed in it; and the tool run on files.
#pragma once

#include "qtrace.h"
#include "qtrace_reader.h"

#include <filesystem>
#include <string>
#include <vector>

namespace planted
{

struct Item {
    bool is_header;
    QTRACE_FILE_HDR header; // without its comment
    std::string comment;
    QTRACE_RECORD record;
};
using Trace = std::vector<Item>;

// Items of good_trace() by what they are.
enum Place : size_t {
    FIRST_HEADER,
    FIRST_RECORD,
    LOAD,         // data through one host walk
    TAKEN_BRANCH, // to an address through one host walk
    NESTED_LOAD,  // data through a guest walk
    UNTAKEN_BRANCH,
    PARTITION,     // header
    STRING,        // with registers in and out
    CALL,          // unconditional, to a hashed page
    SUSPECT_STORE, // hashed page, suspect data address
    LAST_BEFORE_GAP,
    SECOND_HEADER, // in real mode
    RESUMED,
    PLAIN, // the last record, without anything
    PLACES
};
Trace good_trace();
QTRACE_RECORD plain_record(uint32_t word);

// How an address is translated.
enum class Case { real, hpt, single, nested };
enum class Side { next, data, header };

// One side of an item, to be filled or spoilt.
struct Address {
    uint8_t *vsid, *page_number, *page_size, *guest_page_size;
    uint8_t *guest_depth, *host_depth;
    QTRACE_RTW *walks;
    QTRACE_RTW_HOST_RA *host_addresses;
    QTRACE_RTW_GUEST *guest;
};
Address address_of(Item &item, Side side);
void set_modes(Item &item, Side side, unsigned guest, unsigned host);
enum Piece { VSID, PAGE_NUMBER, PAGE_SIZE, GUEST_PAGE_SIZE };
void set_piece(Item &item, Side side, Piece piece, bool present, uint8_t value = 1);
void set_case(Item &item, Side side, Case kind);

// A folder of its own for a test; removed with everything in it.
class Folder
{
public:
    Folder();
    ~Folder();
    std::string path(const std::string &name) const { return (folder_ / name).string(); }
    // Writes the items through the trace library. Returns the file's path.
    std::string write(const std::string &name, const Trace &trace) const;
    std::string text(const std::string &name, const std::string &contents) const;
    std::string contents(const std::string &name) const;

private:
    std::filesystem::path folder_;
};

// What `qtrace ARGUMENTS` says and how it ends.
struct Outcome {
    int exit_code;
    std::string out, err;
};
Outcome qtrace(const std::vector<std::string> &arguments);

} // namespace planted
