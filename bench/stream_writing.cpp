#include "stream_writing.h"

#include "stream_reader.h"

#include <iterator>
#include <stdexcept>

namespace bench
{
namespace
{

void copy_walks(const replay::Address_Answers &from, commit_stream_address &to)
{
    for (size_t walk = 0; walk < from.host_walk.size(); walk++) {
        const HostRadixTree &tree = from.host_walk[walk];
        const uint64_t entries[] = {tree.RTPDE_ra_l1, tree.RTPDE_ra_l2, tree.RTPDE_ra_l3, tree.RTPTE_ra};
        std::copy(std::begin(entries), std::end(entries), to.host_walk[walk]);
    }
    std::copy(from.host_ra.begin(), from.host_ra.end(), to.host_ra);
    const GuestRadixTree &guest = from.guest_walk;
    const uint64_t entries[] = {guest.RTPDE_GUEST_ra_l1, guest.RTPDE_GUEST_ra_l2, guest.RTPDE_GUEST_ra_l3,
                                guest.RTPTE_GUEST_ra, guest.GUEST_ra};
    std::copy(std::begin(entries), std::end(entries), to.guest_walk);
}

commit_stream_address address_of(const replay::Address_Answers &from)
{
    commit_stream_address to{};
#define COPY(key, type, shape) to.key = static_cast<type>(from.key);
    COMMIT_STREAM_ADDRESS_KEYS(COPY)
#undef COPY
    copy_walks(from, to);
    return to;
}

template <class Value, size_t N>
void add_registers(std::vector<Written_Commit::Register> &to, commit_stream_class of, int32_t count,
                   const int32_t (&number)[N], const Value (&value)[N])
{
    const auto *words = reinterpret_cast<const uint64_t *>(value);
    constexpr size_t width = sizeof(Value) / sizeof(uint64_t);
    for (size_t i = 0; i < static_cast<size_t>(count); i++)
        to.push_back({of, number[i], {words[i * width], width == 2 ? words[i * width + 1] : 0}});
}

std::vector<Written_Commit::Register> registers_of(const Plugin_Inst_Registers &from)
{
    std::vector<Written_Commit::Register> to;
    add_registers(to, COMMIT_STREAM_GPR, from.gpr_num, from.gpr_index, from.gpr_value);
    add_registers(to, COMMIT_STREAM_FPR, from.fpr_num, from.fpr_index, from.fpr_value);
    add_registers(to, COMMIT_STREAM_SPR, from.spr_num, from.spr_index, from.spr_value);
    add_registers(to, COMMIT_STREAM_VMX, from.vmx_num, from.vmx_index, from.vmx_value);
    add_registers(to, COMMIT_STREAM_VSX, from.vsx_num, from.vsx_index, from.vsx_value);
    return to;
}

unsigned flags_of(const replay::Instruction &i)
{
    unsigned flags = 0;
#define ADD(word, constant, bit) flags |= (i.word ? 1u : 0u) << (bit);
    COMMIT_STREAM_FLAGS(ADD)
#undef ADD
    return flags;
}

void write_commit(commit_stream *stream, const Written_Commit &c)
{
    commit_stream_begin_commit(stream, c.tid, c.seq, c.pc, c.npc, c.op);
    commit_stream_text(stream, c.text.c_str());
    if (c.flags != 0)
        commit_stream_is(stream, c.flags);
    if (c.string_length != 0)
        commit_stream_string_length(stream, c.string_length);
    commit_stream_fetch(stream, &c.fetch);
    if (c.has_ea)
        commit_stream_data(stream, &c.ea, &c.data);
    for (const Written_Commit::Register &r : c.in)
        commit_stream_in(stream, r.of, r.number, r.words[0], r.words[1]);
    for (const Written_Commit::Register &r : c.out)
        commit_stream_out(stream, r.of, r.number, r.words[0], r.words[1]);
    commit_stream_end(stream);
}

} // namespace

Stream_Writing::Stream_Writing(const std::string &recorded, size_t most)
{
    replay::Stream_Reader reader(recorded);
    while (const replay::Stream_Event *event = commits_.size() < most ? reader.next() : nullptr) {
        const replay::Instruction &i = event->instruction;
        if (event->kind == replay::Event_Kind::machine)
            machine_ = event->machine;
        else if (event->kind == replay::Event_Kind::commit)
            commits_.push_back({i.tid, i.seq, i.pc, i.npc, i.op, i.text, flags_of(i), i.string_length, i.ea_valid,
                                i.ea, address_of(i.fetch), address_of(i.data), registers_of(i.in),
                                registers_of(i.out)});
    }
    if (commits_.size() < most)
        throw std::runtime_error(recorded + " is too short");
}

uint64_t Stream_Writing::write(const std::string &file) const
{
    commit_stream *stream = commit_stream_open(file.c_str());
    if (stream == nullptr)
        throw std::runtime_error(file + " cannot be created");
    commit_stream_machine machine{};
    machine.processors = machine_.processors;
    machine.threads = machine_.threads;
    machine.memory = machine_.memory;
    commit_stream_write_machine(stream, &machine);
    for (const Written_Commit &commit : commits_)
        write_commit(stream, commit);
    if (const char *problem = commit_stream_close(stream))
        throw std::runtime_error(file + ": " + problem);
    return commits_.size() + 1;
}

uint64_t read_stream(const std::string &file)
{
    replay::Stream_Reader reader(file);
    uint64_t lines = 0;
    while (reader.next() != nullptr)
        lines++;
    if (reader.error())
        throw std::runtime_error(file + ": " + reader.error()->text());
    return lines;
}

} // namespace bench
