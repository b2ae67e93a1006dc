#include "text.h"

#include "auto_comment.h"
#include "register_classes.h"
#include "text_format.h"
#include "xlate_modes.h"

#include <algorithm>
#include <string.h>

// Everything that belongs to one node is put together here and handed to the stream in one piece, so that a record
// costs one system call. The longest possible line (two nested walks, every register) has less than 13,000 bytes.
static char line[16384];

const char *get_xlate_type_string(RDX_XLATE_MODE mode)
{
    return mode_info(mode).name.data();
}

// ---- Translation sections --------------------------------------------------------------------------------------

// The two sections of a line differ on purpose in a few places; readers rely on each difference. What differs is
// said here, the rest is written once.
struct Text_Side {
    Short_Word label;          // before the names of walk items
    bool continues_group;      // hashed-page-table items continue the "(DEA:" group: ", " in front, no parentheses
    bool real_has_page_number; // the host-real item is followed by the page number
    bool guest_real_hpt_on;    // mode 16 with translation on is written like mode 14
    Short_Word gra_end;        // what follows the guest real address of a guest-real walk
    std::string_view
        odd_pte_label; // the label of one entry: block 4, host walk of one directory level, first entry
};

static constexpr Text_Side FETCH_TEXT = {"iar_", false, false, false, "", "(vhRTPTE_L2_RA:0x"};
static constexpr Text_Side DATA_TEXT = {"data_", true, true, true, " ", "(data_hRTPTE_L2_RA:0x"};

// The case by which a section is written. Differs from the record's in modes whose relocation contradicts them.
static XLATE_CASE text_case(const Text_Side &side, const Xlate_Fields &x)
{
    const XLATE_CASE rule = mode_info(x.radix_type).rule;
    if (x.relocation && rule == CASE_GUEST_REAL_RADIX)
        return CASE_GUEST_RADIX;
    if (x.relocation && rule == CASE_GUEST_REAL_HPT && side.guest_real_hpt_on)
        return CASE_GUEST_HPT;
    return dispatched_case(x.radix_type, x.relocation);
}

static char *put_page_number(char *out, const Text_Side &side, const Xlate_Fields &x)
{
    return put<"(%sRPN:0x%08X)">(out, side.label, x.RPN);
}

static char *put_host_real(char *out, const Text_Side &side, const Xlate_Fields &x)
{
    if (!side.real_has_page_number)
        return put<"(RA:0x%016lX) ">(out, x.RA);
    out = put<"(data_RA:0x%016lX)">(out, x.RA);
    return put_page_number(out, side, x);
}

static char *put_hpt(char *out, const Text_Side &side, const Xlate_Fields &x, bool guest_address, bool guest_page)
{
    out = put<"%sVSID:0x%016lX">(out, side.continues_group ? Short_Word(", ") : Short_Word("("), x.VSID);
    if (guest_address)
        out = put<", gRA:0x%016lX">(out, x.gRTW.GUEST_ra);
    out = put<", RPN:0x%08x, HostPageSize:%d">(out, x.RPN, int{x.pagesize});
    if (guest_page)
        out = put<", GuestPageSize:%d">(out, int{x.gpagesize});
    return side.continues_group ? out : put<") ">(out);
}

// One host walk as one item with all its addresses; `levels` other than 1 to 3 have none.
static char *put_host_walk(char *out, const Text_Side &side, const HostRadixTree &walk, uint8_t levels)
{
    const Short_Word &l = side.label;
    if (levels == 1)
        return put<"(%shRTPDE_L1_RA:0x%016lX, %shRTPTE_RA:0x%016lX) ">(out, l, walk.RTPDE_ra_l1, l, walk.RTPTE_ra);
    if (levels == 2)
        return put<"(%shRTPDE_L1_RA:0x%016lX, %shRTPDE_L2_RA:0x%016lX, %shRTPTE_RA:0x%016lX) ">(
            out, l, walk.RTPDE_ra_l1, l, walk.RTPDE_ra_l2, l, walk.RTPTE_ra);
    if (levels == 3)
        return put<"(%shRTPDE_L1_RA:0x%016lX, %shRTPDE_L2_RA:0x%016lX, %shRTPDE_L3_RA:0x%016lX, "
                   "%shRTPTE_RA:0x%016lX) ">(out, l, walk.RTPDE_ra_l1, l, walk.RTPDE_ra_l2, l, walk.RTPDE_ra_l3, l,
                                             walk.RTPTE_ra);
    return out;
}

static char *put_host_walk_group(char *out, const Text_Side &side, const Xlate_Fields &x)
{
    const auto levels = static_cast<uint8_t>(x.host_walkdepth - 1);
    out = put<"(%sHost_RTW_Depth:%d ">(out, side.label, int{levels});
    return put<")">(put_host_walk(out, side, x.hRTW[0], levels));
}

// One host walk entry by entry: its directory entries, and the page-table entry named by the level after them.
static char *put_walk_entries(char *out, const Text_Side &side, const HostRadixTree &walk, int levels,
                              bool odd_label = false)
{
    const PA directory[] = {walk.RTPDE_ra_l1, walk.RTPDE_ra_l2, walk.RTPDE_ra_l3};
    for (int level = 1; level <= levels; ++level)
        out = put<"(%shRTPDE_L%d_RA:0x%016lX)">(out, side.label, level, directory[level - 1]);
    if (odd_label)
        return put<"%s%016lX)">(out, side.odd_pte_label, walk.RTPTE_ra);
    return put<"(%shRTPTE_L%d_RA:0x%016lX)">(out, side.label, levels + 1, walk.RTPTE_ra);
}

// The block of a guest level lists the walk of its own depth and of every greater one.
static char *put_level_block(char *out, const Text_Side &side, const Xlate_Fields &x, int guest_level,
                             uint8_t levels)
{
    out = put<"(%sHost_RTWs_Block:%d ">(out, side.label, guest_level);
    for (int depth = levels; depth >= 1 && depth <= 3; ++depth)
        out = put_walk_entries(out, side, x.hRTW[guest_level - 1], depth, guest_level == 4 && depth == 1);
    return put<"(%shRTW_host_Block%d_RA:0x%016lX))">(out, side.label, guest_level,
                                                     x.hRTW_host_RA[guest_level - 1].ra);
}

// The block of the final guest real address; only its own depth, and no address that it resolved to.
static char *put_last_block(char *out, const Text_Side &side, const Xlate_Fields &x, uint8_t levels)
{
    out = put<"(%sHost_RTWs_Block:%d ">(out, side.label, int{x.guest_walkdepth});
    if (levels >= 1 && levels <= 3)
        out = put_walk_entries(out, side, x.hRTW[x.guest_walkdepth - 1], levels);
    return put<")">(out);
}

static char *put_page_sizes(char *out, const Xlate_Fields &x)
{
    return put<"(HostPageSize:%d, GuestPageSize:%d) ">(out, int{x.pagesize}, int{x.gpagesize});
}

// A guest walk that cannot be in the arrays (no access, or more than five) has no blocks.
static char *put_nested_walk(char *out, const Text_Side &side, const Xlate_Fields &x)
{
    const Short_Word &l = side.label;
    const GuestRadixTree &guest = x.gRTW;
    const auto levels = static_cast<uint8_t>(x.host_walkdepth - 1);
    out = put<"(%sGuest_RAs: (%sgRTPDE_L1_RA:0x%016lX %sgRTPDE_L2_RA:0x%016lX %sgRTPDE_L3_RA:0x%016lX "
              "%sgRTPTE_RA:0x%016lX %sgRA:0x%016lX) ) ">(put_page_sizes(out, x), l, l, guest.RTPDE_GUEST_ra_l1, l,
                                                         guest.RTPDE_GUEST_ra_l2, l, guest.RTPDE_GUEST_ra_l3, l,
                                                         guest.RTPTE_GUEST_ra, l, guest.GUEST_ra);
    if (x.guest_walkdepth < 1 || x.guest_walkdepth > HOST_WALKS)
        return out;
    static_assert(HOST_WALKS - 1 == GUEST_LEVELS);
    for (int guest_level = 1; guest_level < x.guest_walkdepth; ++guest_level)
        out = put_level_block(out, side, x, guest_level, levels);
    return put_last_block(out, side, x, levels);
}

static char *put_guest_real_radix(char *out, const Text_Side &side, const Xlate_Fields &x)
{
    out = put_host_walk_group(put_page_sizes(out, x), side, x);
    return put<"(%sgRA:0x%016lX)%s">(out, side.label, x.gRTW.GUEST_ra, side.gra_end);
}

static char *put_translation(char *out, const Text_Side &side, const Xlate_Fields &x)
{
    switch (text_case(side, x)) {
    case CASE_NONE:
        return out;
    case CASE_HOST_REAL:
        return put_host_real(out, side, x);
    case CASE_GUEST_HPT:
        return put_hpt(out, side, x, false, true);
    case CASE_GUEST_REAL_HPT:
        return put_hpt(out, side, x, true, true);
    case CASE_HOST_HPT:
        return put_hpt(out, side, x, false, false);
    case CASE_GUEST_RADIX:
        return put_page_number(put_nested_walk(out, side, x), side, x);
    case CASE_GUEST_REAL_RADIX:
        return put_page_number(put_guest_real_radix(out, side, x), side, x);
    case CASE_HOST_RADIX:
        out = put<"(HostPageSize:%d) ">(out, int{x.pagesize});
        return put_page_number(put_host_walk_group(out, side, x), side, x);
    }
    return out;
}

// ---- Registers -------------------------------------------------------------------------------------------------

static char *put_register_value(char *out, uint64_t value)
{
    return put<"%016lX) ">(out, value);
}

// Word 1 first, and the case of the digits changes half-way.
static char *put_register_value(char *out, const QuadWord &value)
{
    return put<"%016lX%016lx) ">(out, value.word[1], value.word[0]);
}

// Both 128-bit classes have the letter v; the order of the classes tells them apart.
static constexpr Register_Classes CLASS_LETTERS = {'r', 'f', 's', 'v', 'v'};

// One class of registers; `ordinal` runs over all classes of a direction. `item` begins each.
template <Format item, class Class> static char *put_class(char *out, char letter, int &ordinal, Class from)
{
    const int32_t filled = std::min<int32_t>(from.num, from.capacity);
    for (int i = 0; i < filled; ++i) {
        out = put<"%c%d):0x">(put<item>(out, ordinal++), letter, from.index[i]);
        out = put_register_value(out, from.value[i]);
    }
    return out;
}

template <Format item> static char *put_registers(char *out, const Plugin_Inst_Registers &registers)
{
    int ordinal = 0;
    for_each_used_class([&](char letter, auto from) { out = put_class<item>(out, letter, ordinal, from); },
                        registers, CLASS_LETTERS, register_classes(registers));
    return out;
}

// ---- The lines of a node ---------------------------------------------------------------------------------------

static char *put_header_lines(char *out, const Node *p)
{
    char comment[AUTO_COMMENT_SIZE];
    auto_comment(p, comment);
    return put<"*** FILE HEADER INSERTED *** \n%s\n">(out, std::string_view(comment));
}

static char *put_partition_change(char *out, const Node *p)
{
    // the closing parenthesis has no partner; readers expect it
    return put<"Partition Change: pid:%d,lpid:%ld)\n">(out, static_cast<int32_t>(p->pid),
                                                       static_cast<int64_t>(p->lpid));
}

static char *put_name(char *out, const char (&name)[INST_NAME_SIZE])
{
    return put<"{name:%s} ">(out, std::string_view(name, strnlen(name, sizeof name)));
}

static char *put_identity(char *out, const Node *p)
{
    const First_OP_Info &info = p->info;
    out = put<"(seq:%ld,tid:%d) (xlatetype_I:%s) (xlatetype_D:%s) ">(
        out, static_cast<int64_t>(p->seq), p->proc_index, mode_info(p->pc_radix_type).name,
        mode_info(p->data_radix_type).name);
    out = put<"(pid:%d,lpid:%ld,ptcr:0x%016lX) ">(out, static_cast<int32_t>(p->pid), static_cast<int64_t>(p->lpid),
                                                  p->ptcr);
    out = info.kernel ? put<"(KERN,">(out) : put<"(USER,">(out);
    out = p->simple ? put<"SIMP) ">(out) : put<"CYCLE) ">(out);
    out = put<"(commit:%d)(instbody:0x%08x) ">(out, static_cast<int>(p->commit), info.instbody);
    return put_name(out, info.name);
}

static char *put_flags_and_addresses(char *out, Node *p)
{
    out = put<"(I:%d) (N:%d) (T:%d) (PC:0x%016lX) (nextPC:0x%016lX) ">(
        out, static_cast<int>(p->I), static_cast<int>(p->N), static_cast<int>(p->T), p->PC, p->nextPC);
    if (p->N || p->T)
        out = put<"(nn:%d) ">(out, int{p->nn});
    if (p->I || (p->N && !p->T))
        out = put_translation(out, FETCH_TEXT, pc_fields(p));
    return out;
}

static char *put_branch_outcome(char *out, const First_OP_Info &info)
{
    if (info.branch == '?')
        return out;
    if (info.taken == 'Y')
        return put<"(branch taken) ">(out);
    return info.taken == 'N' ? put<"(branch untaken) ">(out) : put<"(unknown) ">(out);
}

static char *put_data_group(char *out, Node *p)
{
    const First_OP_Info &info = p->info;
    if (!(info.load || info.store || info.cache) || !info.data_addr_valid)
        return out;
    out = put<"(DEA:0x%016lX">(out, info.data_addr);
    if (!info.except)
        out = put_translation(out, DATA_TEXT, data_fields(p));
    return put<") ">(out);
}

static char *put_terminator(char *out, const Node *p)
{
    if (p->terminated_seq)
        return put<"(terminated by %ld) ">(out, static_cast<int64_t>(p->terminated_seq));
    if (p->T && p->terminated_by)
        return put<"(terminated by %ld) ">(out, static_cast<int64_t>(p->terminated_by->seq));
    return out;
}

static char *put_neighbours(char *out, const Node *p)
{
    if (p->left)
        out = put<"(left:%ld) ">(out, static_cast<int64_t>(p->left->seq));
    if (p->right)
        out = put<"(right:%ld)">(out, static_cast<int64_t>(p->right->seq));
    return put<"\n">(out);
}

static char *put_record_line(char *out, Node *p)
{
    const First_OP_Info &info = p->info;
    out = put_flags_and_addresses(put_identity(out, p), p);
    out = p->done ? put<"(done) ">(out) : put<"(undone) ">(out);
    out = put_branch_outcome(out, info);
    out = put_data_group(out, p);
    if (info.string && info.str_len != UNKNOWN_STRING_LENGTH)
        out = put<"(len:%d) ">(out, int{info.str_len});
    out = put_terminator(out, p);
    out = put_registers<"(Input Reg %d(">(out, p->reg_in);
    out = put_registers<"(Output Reg %d(">(out, p->reg_out);
    return put_neighbours(out, p);
}

boolean dump_node_text(Node *p)
{
    if (!qfile_in_text)
        return 0;
    FILE *stream = qfile_in_text[p->proc_index];
    if (!stream)
        return 0;
    char *end = line;
    if (!hdr_write[p->proc_index])
        end = put_header_lines(end, p);
    if (p->partition_change)
        end = put_partition_change(end, p);
    end = put_record_line(end, p);
    fwrite(line, 1, static_cast<size_t>(end - line), stream);
    fflush(stream);
    return 1;
}
