// What models of TLBs and reports need of the items of a group of blocks, in 40 bytes each and the translations that
// they name: made by any thread, and gone through by one thread in file order.
#pragma once

#include "instruction_kinds.h"
#include "qtrace_reader.h"
#include "translation.h"

#include <array>
#include <span>
#include <vector>

namespace qtrace_tool
{

// How an item tells a translation: the number of one in its list, or one of these.
enum Translation_Code : uint32_t {
    NO_ADDRESS = 0xFFFFFFFC, // there is none to be translated
    SUSPECT,                 // its translation failed
    UNTRANSLATED,            // relocation is off
    NOT_TOLD
};

struct Access_Entry {
    enum class Kind : uint8_t { record, header, loss };
    uint64_t record;           // number of the record; of a header or a loss that of the next one
    uint64_t address = 0;      // of the instruction; else the partition that runs from here on
    uint64_t data_address = 0; // of its access; else the process
    uint32_t data = NO_ADDRESS;
    uint32_t next = NO_ADDRESS; // of the next instruction, if it is named; of a header that of the first one
    Kind kind = Kind::record;
    bool known = false;                                              // the address; of a loss partition and process
    bool store = false;                                              // of records, for those that want to know
    trace::Branch_Outcome branch = trace::Branch_Outcome::no_branch; // the same
};

class Access_List
{
public:
    // The sizes are the caller's.
    explicit Access_List(const Page_Sizes &sizes) : sizes_(sizes) { numbers_.fill(NOT_TOLD); }

    Access_Entry &record(const QTRACE_Item &item);
    void header(const QTRACE_Item &item);
    // Records are missing before record `next`. `context`: the header in force there; null when it is not known.
    void loss(uint64_t next, const QTRACE_FILE_HDR *context);

    // Whether it is so long that it should be gone through and cleared before it goes on.
    bool is_long() const
    {
        constexpr size_t MUCH = 2 << 20; // bytes
        return entries_.size() * sizeof(Access_Entry) + translations_.size() * sizeof(Named_Translation) > MUCH;
    }
    void clear();
    std::span<const Access_Entry> entries() const { return entries_; }
    // Their address spaces are not set, as these depend on what runs.
    const Named_Translation &translation(uint32_t number) const { return translations_[number]; }

private:
    uint32_t code_of(const trace::Translated_Address &address, uint64_t effective);
    uint32_t number_of_read();

    const Page_Sizes &sizes_;
    std::vector<Access_Entry> entries_;
    std::vector<Named_Translation> translations_;
    Named_Translation read_;
    std::array<uint32_t, 1024> numbers_; // of the last translation of each hash
};

} // namespace qtrace_tool
