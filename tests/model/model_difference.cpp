#include "model_difference.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace model
{

namespace
{

// A member of a header or record, or one bit field of it.
struct Member {
    std::string name;
    size_t offset; // bytes
    size_t size;
    unsigned first_bit = 0, bits = 0; // within the 32 bits at `offset`; bits 0: whole bytes
};

using Members = std::vector<Member>;

void add_bits(Members &members, const std::string &prefix, size_t offset,
              const std::vector<std::pair<const char *, unsigned>> &fields)
{
    unsigned bit = 0;
    for (const auto &[name, width] : fields) {
        members.push_back({prefix + name, offset + bit / 32 * 4, 4, bit % 32, width});
        bit += width;
    }
}

void add_control(Members &members, const std::string &prefix, size_t offset)
{
    add_bits(members, prefix, offset,
             {{"_secondary_extended_reserved_11_15", 5},
              {"pid_is_present", 1},
              {"lpid_is_present", 1},
              {"ptcr_is_present", 1},
              {"guest_xlate_mode_instruction", 2},
              {"host_xlate_mode_instruction", 2},
              {"guest_xlate_mode_data", 2},
              {"host_xlate_mode_data", 2},
              {"secondary_extender_present", 1},
              {"file_header_present", 1},
              {"data_gpage_size_present", 1},
              {"instruction_gpage_size_present", 1},
              {"secondary_data_page_size_present", 1},
              {"sequential_instruction_page_size_present", 1},
              {"data_segment_size_present", 1},
              {"next_instruction_segment_size_present", 1},
              {"data_page_size_present", 1},
              {"next_instruction_page_size_present", 1},
              {"_extended_length_bit", 1},
              {"trace_alteration_flag_present", 1},
              {"trace_error_code_present", 1},
              {"exception_code_present", 1},
              {"sequential_instruction_RPN_present", 1},
              {"secondary_data_RPN_present", 1},
              {"_extender_present", 1},
              {"_reserved_14", 1},
              {"_reserved_13", 1},
              {"register_trace_present", 1},
              {"next_instruction_RPN_present", 1},
              {"next_instruction_VSID_present", 1},
              {"next_instruction_EA_present", 1},
              {"data_present", 1},
              {"length_present", 1},
              {"data_RPN_present", 1},
              {"data_VSID_present", 1},
              {"data_address_present", 1},
              {"processor_present", 1},
              {"termination_present", 1},
              {"node_present", 1},
              {"iar_change_present", 1},
              {"unused bits", 16}});
}

// The walks of an address block stand after each other; `offset` is that of the first host walk.
void add_walks(Members &members, const std::string &prefix, size_t offset)
{
    const auto add = [&](const std::string &name) {
        members.push_back({prefix + name, offset, 8});
        offset += 8;
    };
    for (int walk = 0; walk < 5; ++walk)
        for (const char *entry : {"RTPDE_ra_l1", "RTPDE_ra_l2", "RTPDE_ra_l3", "RTPTE_ra"})
            add("_hRTW[" + std::to_string(walk) + "]." + entry);
    for (int level = 0; level < 4; ++level)
        add("_hRTW_host_RA[" + std::to_string(level) + "].ra");
    for (const char *entry : {"RTPDE_GUEST_ra_l1", "RTPDE_GUEST_ra_l2", "RTPDE_GUEST_ra_l3", "RTPDE_GUEST_ra_l4",
                              "RTPTE_GUEST_ra", "GUEST_ra"})
        add(std::string("_gRTW.") + entry);
}

template <class Info> void add_registers(Members &members, const std::string &name, size_t offset, int count)
{
    for (int i = 0; i < count; ++i, offset += sizeof(Info)) {
        const std::string entry = "regs." + name + "[" + std::to_string(i) + "].";
        members.push_back({entry + "index", offset, 2});
        for (size_t word = offsetof(Info, value); word < sizeof(Info); word += 8)
            members.push_back({entry + "value", offset + word, 8});
    }
}

#define MEMBER(type, name) members.push_back({#name, offsetof(type, name), sizeof(type::name)})
#define BLOCK(type, name)                                                                                          \
    MEMBER(type, name##_hRTW_depth);                                                                               \
    MEMBER(type, name##_hRTW_num_level);                                                                           \
    add_walks(members, #name, offsetof(type, name##_hRTW));                                                        \
    MEMBER(type, name##_rpn)
#define REGISTERS(info, name, count)                                                                               \
    add_registers<info>(members, #name, offsetof(QTRACE_RECORD, regs) + offsetof(QTRACE_REGISTERS, name), count)

Members header_members()
{
    Members members;
    add_bits(members, "control.", offsetof(QTRACE_FILE_HDR, control),
             {{"app_spec_data_present", 1},
              {"comment_present", 1},
              {"persistent_data_present", 1},
              {"_reserved_12", 1},
              {"iar_gpage_size_is_present", 1},
              {"processor_id_is_present", 1},
              {"iar_page_size_is_present", 1},
              {"iar_segment_size_is_present", 1},
              {"barrier_synchronization", 1},
              {"asr_is_present", 1},
              {"sdr1_is_present", 1},
              {"iar_rpn_is_present", 1},
              {"iar_vsid_is_present", 1},
              {"iar_is_present", 1},
              {"version_number_present", 1},
              {"magic_number_present", 1},
              {"unused bits", 16}});
    MEMBER(QTRACE_FILE_HDR, sec_ext_controlword.instruction);
    add_control(members, "sec_ext_controlword.control.", offsetof(QTRACE_FILE_HDR, sec_ext_controlword.control));
    MEMBER(QTRACE_FILE_HDR, magic);
    MEMBER(QTRACE_FILE_HDR, version);
    MEMBER(QTRACE_FILE_HDR, iar);
    MEMBER(QTRACE_FILE_HDR, iar_vsid);
    BLOCK(QTRACE_FILE_HDR, iar);
    MEMBER(QTRACE_FILE_HDR, iar_segment_size);
    MEMBER(QTRACE_FILE_HDR, iar_page_size);
    MEMBER(QTRACE_FILE_HDR, iar_gpage_size);
    MEMBER(QTRACE_FILE_HDR, ptcr);
    MEMBER(QTRACE_FILE_HDR, lpid);
    MEMBER(QTRACE_FILE_HDR, pid);
    MEMBER(QTRACE_FILE_HDR, sdr1);
    MEMBER(QTRACE_FILE_HDR, asr);
    MEMBER(QTRACE_FILE_HDR, processor_id);
    MEMBER(QTRACE_FILE_HDR, persistent_data_field);
    MEMBER(QTRACE_FILE_HDR, persistent_data_length);
    MEMBER(QTRACE_FILE_HDR, persistent_data);
    MEMBER(QTRACE_FILE_HDR, comment_length);
    MEMBER(QTRACE_FILE_HDR, app_spec_data_length);
    MEMBER(QTRACE_FILE_HDR, app_spec_data);
    return members;
}

void add_register_members(Members &members)
{
    MEMBER(QTRACE_RECORD, regs.num_sprs_out);
    MEMBER(QTRACE_RECORD, regs.num_vsxrs_out);
    MEMBER(QTRACE_RECORD, regs.num_vmxrs_out);
    MEMBER(QTRACE_RECORD, regs.num_fprs_out);
    MEMBER(QTRACE_RECORD, regs.num_gprs_out);
    MEMBER(QTRACE_RECORD, regs.num_sprs_in);
    MEMBER(QTRACE_RECORD, regs.num_vsxrs_in);
    MEMBER(QTRACE_RECORD, regs.num_vmxrs_in);
    MEMBER(QTRACE_RECORD, regs.num_fprs_in);
    MEMBER(QTRACE_RECORD, regs.num_gprs_in);
    REGISTERS(QTRACE_REGISTER_INFO, spr_out, 4);
    REGISTERS(QTRACE_VSX_REGISTER_INFO, vsxr_out, 3);
    REGISTERS(QTRACE_VMX_REGISTER_INFO, vmxr_out, 3);
    REGISTERS(QTRACE_REGISTER_INFO, fpr_out, 3);
    REGISTERS(QTRACE_REGISTER_INFO, gpr_out, 32);
    REGISTERS(QTRACE_REGISTER_INFO, spr_in, 4);
    REGISTERS(QTRACE_VSX_REGISTER_INFO, vsxr_in, 3);
    REGISTERS(QTRACE_VMX_REGISTER_INFO, vmxr_in, 3);
    REGISTERS(QTRACE_REGISTER_INFO, fpr_in, 3);
    REGISTERS(QTRACE_REGISTER_INFO, gpr_in, 32);
}

Members record_members()
{
    Members members;
    MEMBER(QTRACE_RECORD, header.instruction);
    add_control(members, "header.control.", offsetof(QTRACE_RECORD, header.control));
    MEMBER(QTRACE_RECORD, iar);
    MEMBER(QTRACE_RECORD, iar_vsid);
    BLOCK(QTRACE_RECORD, iar);
    MEMBER(QTRACE_RECORD, iar_segment_size);
    MEMBER(QTRACE_RECORD, iar_page_size);
    MEMBER(QTRACE_RECORD, iar_gpage_size);
    MEMBER(QTRACE_RECORD, is_speculative);
    members.push_back({"validity bits", offsetof(QTRACE_RECORD, is_speculative) + 4, 4});
    MEMBER(QTRACE_RECORD, itype);
    members.push_back({"iar_segment_size_is_valid", offsetof(QTRACE_RECORD, itype) + 4, 1});
    MEMBER(QTRACE_RECORD, node);
    MEMBER(QTRACE_RECORD, termination_node);
    MEMBER(QTRACE_RECORD, termination_code);
    MEMBER(QTRACE_RECORD, processor);
    MEMBER(QTRACE_RECORD, data_ea);
    MEMBER(QTRACE_RECORD, data_vsid);
    BLOCK(QTRACE_RECORD, data);
    BLOCK(QTRACE_RECORD, secondary_data);
    MEMBER(QTRACE_RECORD, length);
    MEMBER(QTRACE_RECORD, data);
    MEMBER(QTRACE_RECORD, next_instruction_ea);
    MEMBER(QTRACE_RECORD, next_instruction_vsid);
    BLOCK(QTRACE_RECORD, next_instruction);
    BLOCK(QTRACE_RECORD, sequential_instruction);
    MEMBER(QTRACE_RECORD, exception_code);
    MEMBER(QTRACE_RECORD, error_code);
    MEMBER(QTRACE_RECORD, trace_alteration_code);
    MEMBER(QTRACE_RECORD, next_instruction_page_size);
    MEMBER(QTRACE_RECORD, next_instruction_gpage_size);
    MEMBER(QTRACE_RECORD, data_page_size);
    MEMBER(QTRACE_RECORD, data_gpage_size);
    MEMBER(QTRACE_RECORD, next_instruction_segment_size);
    MEMBER(QTRACE_RECORD, data_segment_size);
    MEMBER(QTRACE_RECORD, sequential_instruction_page_size);
    MEMBER(QTRACE_RECORD, sequential_instruction_gpage_size);
    MEMBER(QTRACE_RECORD, secondary_data_page_size);
    MEMBER(QTRACE_RECORD, secondary_data_gpage_size);
    MEMBER(QTRACE_RECORD, file_header);
    MEMBER(QTRACE_RECORD, persistent_data);
    add_register_members(members);
    MEMBER(QTRACE_RECORD, offset);
    MEMBER(QTRACE_RECORD, record_count);
    MEMBER(QTRACE_RECORD, instr_count);
    MEMBER(QTRACE_RECORD, exec_instr_count);
    return members;
}

// The member's value as a number, most significant digit first.
std::string value_of(const void *base, const Member &member)
{
    const auto *bytes = static_cast<const uint8_t *>(base) + member.offset;
    if (member.bits > 0) {
        uint32_t unit;
        std::memcpy(&unit, bytes, sizeof unit);
        return std::to_string(unit >> member.first_bit & ((uint64_t{1} << member.bits) - 1));
    }
    std::string text = "0x";
    for (size_t i = member.size; i-- > 0;)
        text += formatted("%02x", bytes[i]);
    return text;
}

// Members of an address block whose contents an impossible walk leaves open. The flags say the same anyway.
bool is_open_member(const std::string &name, const std::string &block)
{
    if (!name.starts_with(block))
        return false;
    const std::string rest = name.substr(block.size());
    return rest.starts_with("_hRTW[") || rest.starts_with("_hRTW_host_RA") || rest.starts_with("_gRTW") ||
           rest == "_rpn" || rest == "_page_size" || rest == "_gpage_size" || rest == "_vsid";
}

bool is_open(const std::string &name, const Open_Parts &open)
{
    return (open.iar && is_open_member(name, "iar")) || (open.next && is_open_member(name, "next_instruction")) ||
           (open.data && is_open_member(name, "data"));
}

std::string different_member(const Members &members, const void *expected, const void *actual,
                             const Open_Parts &open)
{
    for (const Member &member : members) {
        const std::string wanted = value_of(expected, member), got = value_of(actual, member);
        if (wanted != got && !is_open(member.name, open))
            return member.name + ": expected " + wanted + ", got " + got;
    }
    return "";
}

std::string different_header(const Outcome &expected, const Outcome &actual)
{
    static const Members members = header_members();
    if (expected.header.comment != actual.header.comment)
        return "comment: expected \"" + expected.header.comment + "\", got \"" + actual.header.comment + "\"";
    if (std::memcmp(&expected.header.header, &actual.header.header, sizeof(QTRACE_FILE_HDR)) == 0)
        return "";
    return different_member(members, &expected.header.header, &actual.header.header, expected.open);
}

std::string different_record(const Outcome &expected, const Outcome &actual)
{
    static const Members members = record_members();
    if (std::memcmp(&expected.record, &actual.record, sizeof(QTRACE_RECORD)) == 0)
        return "";
    return different_member(members, &expected.record, &actual.record, expected.open);
}

std::string quoted(const std::string &text)
{
    std::string out = "\"";
    for (char c : text)
        out += c == '\n' ? "\\n" : std::string(1, c);
    return out + "\"";
}

std::string described(const Outcome &outcome)
{
    const std::string result = outcome.failed ? " (fails)" : "";
    const std::string file = std::to_string(outcome.file);
    switch (outcome.kind) {
    case Outcome::Kind::console: {
        const char *const channels[] = {"print", "warning", "error"};
        return std::string(channels[static_cast<int>(outcome.channel)]) + " level " +
               std::to_string(outcome.level) + " source \"" + outcome.source + "\": " + quoted(outcome.text);
    }
    case Outcome::Kind::session:
        return "the host is told " + quoted(outcome.text);
    case Outcome::Kind::open:
        return "open " + quoted(outcome.text) + " as " + file + result;
    case Outcome::Kind::close:
        return "close " + file;
    case Outcome::Kind::header:
        return "header into " + file + result;
    case Outcome::Kind::record:
        return formatted("record of 0x%08x into ", outcome.record.header.instruction) + file + result;
    }
    return "";
}

// Whether `actual` is what `expected` says; ANYTHING matches any text.
bool line_matches(std::string_view expected, std::string_view actual)
{
    const size_t open = expected.find(ANYTHING);
    if (open == std::string_view::npos)
        return expected == actual;
    if (actual.substr(0, open) != expected.substr(0, open))
        return false;
    for (size_t at = open; at <= actual.size(); ++at)
        if (line_matches(expected.substr(open + 1), actual.substr(at)))
            return true;
    return false;
}

std::string first_difference_of_lines(const std::string &path, std::string_view expected, std::string_view actual,
                                      bool is_whole)
{
    for (int number = 1; !expected.empty() || !actual.empty(); ++number) {
        if (actual.empty() && !is_whole)
            return "";
        const std::string_view wanted = expected.substr(0, std::min(expected.size(), expected.find('\n') + 1));
        const std::string_view got = actual.substr(0, std::min(actual.size(), actual.find('\n') + 1));
        if (!line_matches(wanted, got))
            return path + ", line " + std::to_string(number) + ":\n    expected " + std::string(wanted) +
                   "\n    got      " + std::string(got);
        expected.remove_prefix(wanted.size());
        actual.remove_prefix(got.size());
    }
    return "";
}

} // namespace

std::string difference(const Outcome &expected, const Outcome &actual)
{
    if (expected.kind != actual.kind || expected.channel != actual.channel || expected.level != actual.level ||
        expected.source != actual.source || expected.text != actual.text || expected.file != actual.file ||
        expected.failed != actual.failed)
        return "expected " + described(expected) + ", got " + described(actual);
    std::string found;
    if (expected.kind == Outcome::Kind::header)
        found = different_header(expected, actual);
    if (expected.kind == Outcome::Kind::record)
        found = different_record(expected, actual);
    return found.empty() ? "" : described(expected) + ": " + found;
}

std::string difference(const std::vector<Outcome> &expected, const std::vector<Outcome> &actual)
{
    for (size_t i = 0; i < expected.size() && i < actual.size(); ++i)
        if (const std::string found = difference(expected[i], actual[i]); !found.empty())
            return found;
    if (expected.size() > actual.size())
        return "missing: " + described(expected[actual.size()]);
    if (actual.size() > expected.size())
        return "too much: " + described(actual[expected.size()]);
    return "";
}

std::string difference(const std::string &path, const Output_File &expected, const std::string &actual,
                       bool is_whole)
{
    if (!is_whole && actual.size() < expected.flushed && expected.contents.find(ANYTHING) == std::string::npos)
        return path + ": " + std::to_string(actual.size()) + " bytes have reached the file, not " +
               std::to_string(expected.flushed);
    if (expected.is_text)
        return first_difference_of_lines(path, expected.contents, actual, is_whole);
    if (expected.contents == actual)
        return "";
    const size_t at =
        std::mismatch(expected.contents.begin(), expected.contents.end(), actual.begin(), actual.end()).first -
        expected.contents.begin();
    return path + ": byte " + std::to_string(at) + " differs; sizes " + std::to_string(expected.contents.size()) +
           " and " + std::to_string(actual.size());
}

} // namespace model
