#include "decoded_stream.h"

#include "stream_reader.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace bench
{

bool Walks::operator<(const Walks &other) const
{
    return std::memcmp(this, &other, sizeof *this) < 0;
}

// Copies events into the stream's own memory.
struct Decoder {
    Decoded_Stream &to;

    template <class Item> Item *keep(const Item *items, size_t count)
    {
        auto *kept = static_cast<Item *>(to.arena_.allocate(count * sizeof(Item), alignof(Item)));
        std::copy_n(items, count, kept);
        return kept;
    }

    const Walks *keep_walks(const replay::Address_Answers &answers)
    {
        Walks walks{answers.host_walk, answers.guest_walk};
        walks.guest.GUEST_ra = 0;
        std::unique_ptr<Walks> &kept = to.walks_[walks];
        if (!kept)
            kept = std::make_unique<Walks>(walks);
        return kept.get();
    }

    Address decode_address(const replay::Address_Answers &a)
    {
        return {a.ra,
                a.vsid,
                a.rpn,
                a.host_rpn,
                a.guest_rpn,
                static_cast<uint8_t>(a.status),
                static_cast<uint8_t>(a.mode),
                static_cast<uint8_t>(a.guest_mode),
                static_cast<uint8_t>(a.host_mode),
                a.host_two_level,
                a.guest_two_level,
                a.host_depth,
                a.guest_depth,
                a.relocated,
                a.page_size,
                a.host_page_size,
                a.guest_page_size,
                keep_walks(a),
                a.host_ra,
                a.guest_walk.GUEST_ra};
    }

    template <class Value, size_t N>
    static uint8_t append(std::vector<int32_t> &numbers, std::vector<uint64_t> &values, int32_t count,
                          const int32_t (&number)[N], const Value (&value)[N])
    {
        constexpr size_t words = sizeof(Value) / sizeof(uint64_t);
        const auto *from = reinterpret_cast<const uint64_t *>(value);
        numbers.insert(numbers.end(), number, number + count);
        values.insert(values.end(), from, from + static_cast<size_t>(count) * words);
        return static_cast<uint8_t>(count);
    }

    Registers decode_registers(const Plugin_Inst_Registers &r)
    {
        std::vector<int32_t> numbers;
        std::vector<uint64_t> values;
        Registers decoded{};
        decoded.gprs = append(numbers, values, r.gpr_num, r.gpr_index, r.gpr_value);
        decoded.fprs = append(numbers, values, r.fpr_num, r.fpr_index, r.fpr_value);
        decoded.sprs = append(numbers, values, r.spr_num, r.spr_index, r.spr_value);
        decoded.vsxs = append(numbers, values, r.vsx_num, r.vsx_index, r.vsx_value);
        decoded.vmxs = append(numbers, values, r.vmx_num, r.vmx_index, r.vmx_value);
        decoded.numbers = keep(numbers.data(), numbers.size());
        decoded.values = keep(values.data(), values.size());
        return decoded;
    }

    const Context *context_of(int tid) { return current[static_cast<size_t>(tid)]; }

    void take_machine(const replay::Machine_Shape &shape)
    {
        to.threads = shape.processors * shape.threads;
        to.version = shape.version;
        to.memory = shape.memory;
        current.assign(to.threads, &to.contexts_.emplace_back());
    }

    void take_context(int tid, const replay::Thread_Context &c)
    {
        current[static_cast<size_t>(tid)] =
            &to.contexts_.emplace_back(Context{c.ptcr, c.lpid, c.sdr1, c.pid, c.bit64, c.little_endian, c.kernel,
                                               c.cycle_mode, c.pages, c.guest_pages});
    }

    void take_commit(const replay::Instruction &i)
    {
        to.instructions.push_back({i.tid,
                                   i.op,
                                   i.seq,
                                   i.pc,
                                   i.npc,
                                   i.ea,
                                   context_of(i.tid),
                                   i.string_length,
                                   i.branch,
                                   i.unconditional,
                                   i.taken,
                                   i.load,
                                   i.store,
                                   i.cache,
                                   i.string,
                                   i.exception,
                                   i.vmx,
                                   i.vsx,
                                   i.filtered,
                                   i.sim_support,
                                   i.ea_valid,
                                   decode_address(i.fetch),
                                   decode_address(i.data),
                                   decode_registers(i.in),
                                   decode_registers(i.out),
                                   keep(i.text.c_str(), i.text.size() + 1)});
    }

    void take(const replay::Stream_Event &event)
    {
        switch (event.kind) {
        case replay::Event_Kind::machine:
            return take_machine(event.machine);
        case replay::Event_Kind::context:
            return take_context(event.instruction.tid, event.context);
        case replay::Event_Kind::commit:
            return take_commit(event.instruction);
        case replay::Event_Kind::pte:
            return to.ptes.push_back(event.pte);
        case replay::Event_Kind::rtpte:
            return to.rtptes.push_back(event.rtpte);
        case replay::Event_Kind::pre:
            return;
        }
    }

    std::vector<const Context *> current; // of each hardware thread
};

Decoded_Stream::Decoded_Stream(const std::string &file, size_t limit)
{
    replay::Stream_Reader reader(file);
    Decoder decoder{*this, {}};
    while (instructions.size() < limit) {
        const replay::Stream_Event *event = reader.next();
        if (!event)
            break;
        decoder.take(*event);
    }
    if (reader.error())
        throw std::runtime_error(file + ": " + reader.error()->text());
}

} // namespace bench
