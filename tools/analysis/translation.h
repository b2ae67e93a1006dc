// How an address was translated, as a TLB and a walk see it: the page in its address space, the real page, the table
// entries that the walk read.
#pragma once

#include "address_view.h"
#include "tlb_figures.h"
#include "trace_counts.h"

namespace qtrace_tool
{

inline constexpr size_t MOST_HOST_WALKS = 5;

// The table entries that a walk reads, in its order: for each of `steps` host walks the directory entries of levels
// 1 to 3 (0: the walk has none) and the page-table entry; between the host walks the guest's entries.
struct Table_Walk {
    uint8_t steps = 0; // 0: the entries are not known
    uint64_t host[MOST_HOST_WALKS][WALK_LEVELS] = {};
    uint64_t guest_real[MOST_HOST_WALKS] = {}; // address that each host walk translates; none in a walk of the host
    uint64_t guest_entry[MOST_HOST_WALKS - 1] = {}; // host real address of each of the guest's entries
};

struct Translation {
    Tlb_Page page;
    uint64_t real = 0; // of the page's first byte; of nested translations the guest's
    Table_Walk walk;
};

// A translation whose address space depends on the partition that runs.
struct Named_Translation {
    Translation translation;
    bool in_guest = false; // the address space belongs to a partition
};

// How far a record tells the translation of an address.
enum class Told : uint8_t { nothing, untranslated, page };

// Kernel addresses, those with the two highest bits set, are translated by the tables of process 0.
constexpr bool is_in_kernel(uint64_t effective)
{
    return effective >> 62 == 3;
}

// Fills `named` but for its address space, which set_space adds (a VSID is filled already). Unless the result is
// Told::page, `named` means nothing.
Told read_translation(const trace::Translated_Address &address, uint64_t effective, const Page_Sizes &sizes,
                      Named_Translation &named);
void set_space(Tlb_Page &page, bool in_guest, const Partition_Key &partition);

} // namespace qtrace_tool
