// The accesses of a trace as the TLB model takes them: which page each instruction was fetched from, and what each
// translation names.
#pragma once

#include "address_view.h"
#include "qtrace_reader.h"
#include "tlb_model.h"
#include "translation.h"

namespace qtrace_tool
{

class Tlb_Feed
{
public:
    // Both are the caller's.
    Tlb_Feed(Tlb_Model &model, const Page_Sizes &sizes) : model_(model), sizes_(sizes) {}

    void header(const QTRACE_FILE_HDR &header);
    void record(const QTRACE_Item &item);
    // Records are missing before the next item. `context`: the header in force there; null when it is not known.
    void loss(const QTRACE_FILE_HDR *context);

private:
    struct Named : Named_Translation {
        uint64_t order = 0; // of naming; higher is later
    };
    Told read(const trace::Translated_Address &address, uint64_t effective, Named &named) const;
    void name_fetch(const trace::Translated_Address &address, uint64_t effective);
    void enter_partition(const QTRACE_FILE_HDR &header);
    void fetch(const QTRACE_Item &item);
    void remember_named();
    Named *last_named(uint64_t address);
    void data(const QTRACE_RECORD &record);

    Tlb_Model &model_;
    const Page_Sizes &sizes_;
    Partition_Key partition_;
    Told told_ = Told::nothing; // of the page that is being executed
    bool fresh_ = false;        // named_ holds for the next instruction
    bool moved_ = false;        // the partition changed since the page was entered
    Named named_, data_;
    Named *current_ = nullptr; // in known_; null: not known
    Tlb_Page space_;           // of the page that is being executed: its kind and address space
    bool space_in_guest_ = false;
    std::unordered_map<Tlb_Page, Named, Tlb_Page_Hash> known_; // last translation of each fetched page
    uint64_t sizes_known_ = 0;                                 // bit n: pages of 2 to the power of n are in known_
    uint64_t order_ = 0;
};

} // namespace qtrace_tool
