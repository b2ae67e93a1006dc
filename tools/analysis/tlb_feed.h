// The accesses of a trace as TLB models take them: which page each instruction was fetched from, and what each
// translation names.
#pragma once

#include "access_list.h"
#include "tlb_model.h"
#include "translation.h"

#include <vector>

namespace qtrace_tool
{

class Tlb_Feed
{
public:
    // The models are the caller's. All of them are told the same.
    explicit Tlb_Feed(std::vector<Tlb_Model *> models) : models_(std::move(models)) {}

    // The next entry of the trace; `list` is the one that it is in.
    void take(const Access_Entry &entry, const Access_List &list);

private:
    struct Named : Named_Translation {
        uint64_t order = 0; // of naming; higher is later
    };
    template <class Tell> void tell(Tell tell)
    {
        for (Tlb_Model *model : models_)
            tell(*model);
    }
    void record(const Access_Entry &entry, const Access_List &list);
    void header(const Access_Entry &entry, const Access_List &list);
    void loss(const Access_Entry &entry);
    void name_fetch(uint32_t code, const Access_List &list);
    void enter_partition(const Access_Entry &entry);
    void fetch(const Access_Entry &entry);
    void remember_named();
    Named *last_named(uint64_t address);
    void data(const Access_Entry &entry, const Access_List &list);

    std::vector<Tlb_Model *> models_;
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
