#include "planted_trace.h"

#include "record_schema.h"
#include "tool_run.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <stdlib.h>

namespace planted
{
namespace
{

const char *const COMMENT =
    "KelvoVer:3,64bitMode:True,LEMode:True,MemUsed:1073741824,HostPagesUsed:4K 64K ,GuestPagesUsed:";

template <class Bytes> void put(Bytes &bytes, uint64_t value)
{
    std::memcpy(bytes, &value, sizeof(bytes));
}

Item header_item(uint64_t address)
{
    Item item{true, {}, COMMENT, {}};
    QTRACE_FILE_HDR &header = item.header;
    auto &control = header.sec_ext_controlword.control.fld;
    header.control.iar_is_present = header.control.version_number_present = header.control.comment_present = 1;
    control.secondary_extender_present = 1;
    control.ptcr_is_present = control.lpid_is_present = control.pid_is_present = 1;
    put(header.iar, address);
    put(header.ptcr, 0xc0000c);
    put(header.lpid, 1);
    put(header.pid, 7);
    return item;
}

Item record_item(uint32_t word)
{
    return {false, {}, "", plain_record(word)};
}

void go_to(QTRACE_RECORD &record, uint64_t next, uint8_t code)
{
    auto &flags = record.header.control.fld;
    flags.iar_change_present = flags.node_present = flags.termination_present = 1;
    flags.next_instruction_EA_present = 1;
    record.termination_code = code;
    put(record.next_instruction_ea, next);
}

void access(QTRACE_RECORD &record, uint64_t address)
{
    record.header.control.fld.data_address_present = 1;
    put(record.data_ea, address);
}

void list_registers(QTRACE_RECORD &record)
{
    record.header.control.fld.register_trace_present = 1;
    record.regs.num_gprs_in = 2;
    record.regs.gpr_in[0] = {4, 0x2000};
    record.regs.gpr_in[1] = {5, 0x11};
    record.regs.num_vsxrs_out = 1;
    record.regs.vsxr_out[0] = {34, {0x1122334455667788, 0x99aabbccddeeff00}};
}

} // namespace

QTRACE_RECORD plain_record(uint32_t word)
{
    QTRACE_RECORD record;
    std::memset(static_cast<void *>(&record), 0, sizeof(record));
    record.header.instruction = word;
    auto &flags = record.header.control.fld;
    flags.secondary_extender_present = 1;
    flags.guest_xlate_mode_instruction = flags.host_xlate_mode_instruction = 3;
    flags.guest_xlate_mode_data = flags.host_xlate_mode_data = 3;
    return record;
}

Trace good_trace()
{
    Trace trace(PLACES);
    trace[FIRST_HEADER] = header_item(0x1000);
    set_case(trace[FIRST_HEADER], Side::header, Case::single);
    trace[FIRST_RECORD] = record_item(0x38600001);
    trace[FIRST_RECORD].record.header.control.fld.processor_present = 1;
    trace[FIRST_RECORD].record.processor = 2;
    trace[LOAD] = record_item(0xe8640008);
    access(trace[LOAD].record, 0x5008);
    set_case(trace[LOAD], Side::data, Case::single);
    trace[TAKEN_BRANCH] = record_item(0x40820ff8); // at 0x1008, to 0x2000
    go_to(trace[TAKEN_BRANCH].record, 0x2000, QTRACE_ExceededMaximumInstructionDepth);
    set_case(trace[TAKEN_BRANCH], Side::next, Case::single);
    trace[NESTED_LOAD] = record_item(0x80640010);
    access(trace[NESTED_LOAD].record, 0x6010);
    set_case(trace[NESTED_LOAD], Side::data, Case::nested);
    trace[UNTAKEN_BRANCH] = record_item(0x41820010);
    trace[UNTAKEN_BRANCH].record.header.control.fld.node_present = 1;
    trace[UNTAKEN_BRANCH].record.header.control.fld.termination_present = 1;
    trace[UNTAKEN_BRANCH].record.termination_code = QTRACE_ExceededMaximumInstructionDepth;
    trace[PARTITION] = {true, {}, "", {}};
    trace[PARTITION].header.sec_ext_controlword.control.fld.lpid_is_present = 1;
    trace[PARTITION].header.sec_ext_controlword.control.fld.pid_is_present = 1;
    put(trace[PARTITION].header.lpid, 2);
    put(trace[PARTITION].header.pid, 8);
    trace[STRING] = record_item(0x7c6484aa); // lswi
    trace[STRING].record.header.control.fld.length_present = 1;
    trace[STRING].record.length = 16;
    list_registers(trace[STRING].record);
    trace[CALL] = record_item(0x48000ff5);
    go_to(trace[CALL].record, 0x3000, QTRACE_UnconditionalBranchNode);
    set_case(trace[CALL], Side::next, Case::hpt);
    trace[SUSPECT_STORE] = record_item(0x90640000);
    access(trace[SUSPECT_STORE].record, 0x7000);
    set_case(trace[SUSPECT_STORE], Side::data, Case::hpt);
    trace[SUSPECT_STORE].record.header.control.fld.trace_error_code_present = 1;
    trace[SUSPECT_STORE].record.error_code = QTRACE_DataAddressIsSuspect;
    trace[LAST_BEFORE_GAP] = record_item(0x60000000);
    trace[SECOND_HEADER] = header_item(0x4000);
    set_case(trace[SECOND_HEADER], Side::header, Case::real);
    trace[RESUMED] = trace[FIRST_RECORD];
    trace[PLAIN] = record_item(0x60000000);
    return trace;
}

Address address_of(Item &item, Side side)
{
    QTRACE_RECORD &r = item.record;
    QTRACE_FILE_HDR &h = item.header;
    switch (side) {
    case Side::next:
        return {r.next_instruction_vsid,        r.next_instruction_rpn,          &r.next_instruction_page_size,
                &r.next_instruction_gpage_size, &r.next_instruction_hRTW_depth,  &r.next_instruction_hRTW_num_level,
                r.next_instruction_hRTW,        r.next_instruction_hRTW_host_RA, &r.next_instruction_gRTW};
    case Side::data:
        return {r.data_vsid,        r.data_rpn,          &r.data_page_size,
                &r.data_gpage_size, &r.data_hRTW_depth,  &r.data_hRTW_num_level,
                r.data_hRTW,        r.data_hRTW_host_RA, &r.data_gRTW};
    default:
        return {h.iar_vsid,        h.iar_rpn,          &h.iar_page_size,
                &h.iar_gpage_size, &h.iar_hRTW_depth,  &h.iar_hRTW_num_level,
                h.iar_hRTW,        h.iar_hRTW_host_RA, &h.iar_gRTW};
    }
}

void set_modes(Item &item, Side side, unsigned guest, unsigned host)
{
    auto &flags = (side == Side::header ? item.header.sec_ext_controlword.control : item.record.header.control).fld;
    if (side == Side::data) {
        flags.guest_xlate_mode_data = guest & 3;
        flags.host_xlate_mode_data = host & 3;
    } else {
        flags.guest_xlate_mode_instruction = guest & 3;
        flags.host_xlate_mode_instruction = host & 3;
    }
}

template <class Word>
static void set_bit(Word &word, std::span<const trace::Trace_Flag> rows, std::string_view name, bool present)
{
    uint64_t bits = 0;
    std::memcpy(&bits, &word, sizeof(word));
    const uint64_t mask = std::ranges::find(rows, name, &trace::Trace_Flag::name)->mask();
    bits = present ? bits | mask : bits & ~mask;
    std::memcpy(&word, &bits, sizeof(word));
}

static void set_flag(Item &item, Side side, Piece piece, bool present)
{
    static constexpr std::string_view NAMES[][4] = {
        {"next_instruction_VSID_present", "next_instruction_RPN_present", "next_instruction_page_size_present",
         "instruction_gpage_size_present"},
        {"data_VSID_present", "data_RPN_present", "data_page_size_present", "data_gpage_size_present"},
        {"iar_vsid_is_present", "iar_rpn_is_present", "iar_page_size_is_present", "iar_gpage_size_is_present"},
    };
    const std::string_view name = NAMES[static_cast<size_t>(side)][piece];
    if (side == Side::header)
        set_bit(item.header.control, trace::FILE_FLAGS, name, present);
    else
        set_bit(item.record.header.control, trace::CONTROL_FLAGS, name, present);
}

void set_piece(Item &item, Side side, Piece piece, bool present, uint8_t value)
{
    const Address address = address_of(item, side);
    uint8_t *const values[] = {address.vsid, address.page_number, address.page_size, address.guest_page_size};
    set_flag(item, side, piece, present);
    *values[piece] = present ? value : 0;
}

static void fill_nested(const Address &address)
{
    *address.guest_depth = 3;
    *address.host_depth = 4;
    for (unsigned i = 0; i < 3; i++) {
        put(address.walks[i].RTPDE_ra_l1, 0x10000 + i * 8);
        put(address.walks[i].RTPDE_ra_l2, 0x20000 + i * 8);
        put(address.walks[i].RTPDE_ra_l3, 0x30000 + i * 8);
        put(address.walks[i].RTPTE_ra, 0x40000 + i * 8);
    }
    put(address.host_addresses[0].ra, 0x50000);
    put(address.host_addresses[1].ra, 0x50008);
    put(address.guest->RTPDE_GUEST_ra_l1, 0x60000);
    put(address.guest->RTPDE_GUEST_ra_l2, 0x60008);
    put(address.guest->RTPTE_GUEST_ra, 0x60010);
    put(address.guest->GUEST_ra, 0x70000);
}

void set_case(Item &item, Side side, Case kind)
{
    static constexpr unsigned MODES[][2] = {{3, 2}, {3, 1}, {3, 0}, {0, 0}};
    const Address address = address_of(item, side);
    const auto row = static_cast<size_t>(kind);
    set_modes(item, side, MODES[row][0], MODES[row][1]);
    set_piece(item, side, VSID, kind == Case::hpt);
    set_piece(item, side, PAGE_NUMBER, kind != Case::real, 0x12);
    set_piece(item, side, PAGE_SIZE, kind != Case::real);
    set_piece(item, side, GUEST_PAGE_SIZE, kind == Case::nested);
    *address.guest_depth = *address.host_depth = 0;
    std::memset(address.walks, 0, RDX_MAX_2LEVEL_DEPTH * sizeof(QTRACE_RTW));
    std::memset(address.host_addresses, 0, RDX_MAX_GUEST_LEVELS * sizeof(QTRACE_RTW_HOST_RA));
    std::memset(address.guest, 0, sizeof(QTRACE_RTW_GUEST));
    if (kind == Case::nested)
        fill_nested(address);
    if (kind == Case::single) {
        *address.host_depth = 4;
        put(address.walks[0].RTPDE_ra_l1, 0x100);
        put(address.walks[0].RTPTE_ra, 0x200);
    }
}

Folder::Folder()
{
    std::string name = (std::filesystem::temp_directory_path() / "qtrace_tool_XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no folder for the test");
    folder_ = name;
}

Folder::~Folder()
{
    std::filesystem::remove_all(folder_);
}

std::string Folder::write(const std::string &name, const Trace &trace) const
{
    const QTRACE_FDESCR file = QTRACE_Fopen(path(name).c_str(), QTRACE_WRITE);
    if (file < 0)
        throw std::runtime_error(qtrace_writer_error());
    for (Item item : trace) {
        if (!item.comment.empty())
            item.header.comment = item.comment.data();
        if (!item.comment.empty() && item.header.comment_length == 0)
            item.header.comment_length = static_cast<uint16_t>(item.comment.size());
        const int result =
            item.is_header ? QTRACE_FwriteFileHeader(file, &item.header) : QTRACE_FwriteRecord(file, &item.record);
        if (result != 0)
            throw std::runtime_error(qtrace_writer_error());
    }
    QTRACE_Fclose(file);
    return path(name);
}

std::string Folder::text(const std::string &name, const std::string &contents) const
{
    std::ofstream(path(name), std::ios::binary) << contents;
    return path(name);
}

std::string Folder::contents(const std::string &name) const
{
    std::ostringstream text;
    text << std::ifstream(path(name), std::ios::binary).rdbuf();
    return text.str();
}

static std::string read_back(std::FILE *file)
{
    std::string text(static_cast<size_t>(std::ftell(file)), '\0');
    std::rewind(file);
    text.resize(std::fread(text.data(), 1, text.size(), file));
    return text;
}

Outcome qtrace(const std::vector<std::string> &arguments)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> out(std::tmpfile(), &std::fclose),
        err(std::tmpfile(), &std::fclose);
    Outcome outcome{qtrace_tool::run_qtrace(arguments, fileno(out.get()), fileno(err.get())), "", ""};
    std::fseek(out.get(), 0, SEEK_END);
    std::fseek(err.get(), 0, SEEK_END);
    outcome.out = read_back(out.get());
    outcome.err = read_back(err.get());
    return outcome;
}

} // namespace planted
