#include "recorded_stream.h"

#include <fstream>
#include <simdjson.h>
#include <sstream>
#include <stdexcept>
#include <zstd.h>

namespace
{

using simdjson::dom::array;
using simdjson::dom::element;
using simdjson::dom::object;

uint64_t number(element value)
{
    if (value.is_string())
        return std::stoull(std::string(value.get_string().value()), nullptr, 0);
    if (value.is_bool())
        return value.get_bool().value() ? 1 : 0;
    return static_cast<uint64_t>(value.get_int64().value());
}

template <class Integer> void number_into(Integer &target, element value)
{
    target = static_cast<Integer>(number(value));
}

template <size_t size> void numbers_into(std::array<uint64_t, size> &target, element value)
{
    size_t i = 0;
    for (element entry : value.get_array())
        target.at(i++) = number(entry);
}

Recorded_Address address_of(object fields)
{
    Recorded_Address a;
    for (const auto &[key, value] : fields) {
        if (key == "mode")
            number_into(a.mode, value);
        else if (key == "status")
            number_into(a.status, value);
        else if (key == "guest_two_level")
            number_into(a.guest_two_level, value);
        else if (key == "host_depth")
            number_into(a.host_depth, value);
        else if (key == "guest_depth")
            number_into(a.guest_depth, value);
        else if (key == "relocated")
            a.relocated = number(value) != 0;
        else if (key == "vsid")
            number_into(a.vsid, value);
        else if (key == "rpn")
            number_into(a.rpn, value);
        else if (key == "host_rpn")
            number_into(a.host_rpn, value);
        else if (key == "guest_rpn")
            number_into(a.guest_rpn, value);
        else if (key == "page_size")
            number_into(a.page_size, value);
        else if (key == "host_page_size")
            number_into(a.host_page_size, value);
        else if (key == "guest_page_size")
            number_into(a.guest_page_size, value);
        else if (key == "host_ra")
            numbers_into(a.host_ra, value);
        else if (key == "guest_walk")
            numbers_into(a.guest_walk, value);
        else if (key == "host_walk") {
            size_t n = 0;
            for (element walk : value.get_array())
                numbers_into(a.host_walk.at(n++), walk);
        }
    }
    return a;
}

Recorded_Registers registers_of(object lists)
{
    Recorded_Registers registers;
    const std::pair<const char *, char> kinds[] = {
        {"gpr", 'r'}, {"fpr", 'f'}, {"spr", 's'}, {"vmx", 'v'}, {"vsx", 'x'}};
    for (const auto &[key, kind] : kinds) {
        array list;
        if (lists[key].get(list))
            continue;
        for (element entry : list) {
            Recorded_Register r{kind, static_cast<int>(number(entry.at(0).value())), {}};
            size_t word = 0;
            for (size_t i = 1; i < entry.get_array().value().size(); ++i)
                r.word[word++] = number(entry.at(i).value());
            registers.push_back(r);
        }
    }
    return registers;
}

void set_flags(Recorded_Commit &c, element list)
{
    for (std::string_view flag : list.get_array()) {
        if (flag == "branch")
            c.branch = true;
        else if (flag == "unconditional")
            c.unconditional = true;
        else if (flag == "taken")
            c.taken = true;
        else if (flag == "load" || flag == "store" || flag == "cache")
            c.access = true;
        else if (flag == "exception")
            c.exception = true;
        else if (flag == "string")
            c.string = true;
    }
}

Recorded_Commit commit_of(object fields)
{
    Recorded_Commit c;
    for (const auto &[key, value] : fields) {
        if (key == "seq")
            number_into(c.seq, value);
        else if (key == "pc")
            number_into(c.pc, value);
        else if (key == "npc")
            number_into(c.npc, value);
        else if (key == "op")
            number_into(c.op, value);
        else if (key == "text")
            c.text = std::string(value.get_string().value());
        else if (key == "string_length")
            number_into(c.string_length, value);
        else if (key == "is")
            set_flags(c, value);
        else if (key == "fetch")
            c.fetch = address_of(value.get_object());
        else if (key == "data") {
            c.data = address_of(value.get_object());
            element ea;
            if (!value["ea"].get(ea))
                c.ea = number(ea);
        } else if (key == "in")
            c.in = registers_of(value.get_object());
        else if (key == "out")
            c.out = registers_of(value.get_object());
    }
    return c;
}

void append_words(std::string &bytes, element line, std::initializer_list<const char *> keys)
{
    for (const char *key : keys) {
        element value;
        const uint64_t word = line[key].get(value) ? 0 : number(value);
        for (int shift = 56; shift >= 0; shift -= 8)
            bytes += static_cast<char>(word >> shift & 0xFF);
    }
}

std::string decompressed(const std::string &packed)
{
    ZSTD_DStream *stream = ZSTD_createDStream();
    ZSTD_inBuffer in{packed.data(), packed.size(), 0};
    std::string text, piece(ZSTD_DStreamOutSize(), '\0');
    while (in.pos < in.size) {
        ZSTD_outBuffer out{piece.data(), piece.size(), 0};
        if (ZSTD_isError(ZSTD_decompressStream(stream, &out, &in)))
            throw std::runtime_error("not a whole compressed stream");
        text.append(piece, 0, out.pos);
    }
    ZSTD_freeDStream(stream);
    return text;
}

} // namespace

std::string stream_text(const std::filesystem::path &file, size_t limit)
{
    std::ifstream in(file, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    std::string text = file.extension() == ".zst" ? decompressed(contents.str()) : contents.str();
    size_t end = 0;
    for (size_t lines = 0; lines < limit && end < text.size(); ++lines)
        end = std::min(text.find('\n', end), text.size() - 1) + 1;
    text.resize(end);
    return text;
}

Recorded_Stream parse_stream(const std::string &text)
{
    Recorded_Stream stream;
    std::vector<bool> kernel;
    simdjson::dom::parser parser;
    for (element line : parser.parse_many(text)) {
        const std::string_view kind = line["t"].get_string();
        if (kind == "machine") {
            stream.threads.resize(number(line["processors"].value()) * number(line["threads"].value()));
            kernel.resize(stream.threads.size());
            continue;
        }
        const size_t tid = number(line["tid"].value());
        Recorded_Thread &thread = stream.threads.at(tid);
        if (kind == "commit") {
            thread.commits.push_back(commit_of(line.get_object()));
            thread.commits.back().kernel = kernel[tid];
        } else if (kind == "context") {
            element privileged;
            if (!line["kernel"].get(privileged))
                kernel[tid] = number(privileged) != 0;
        } else if (kind == "pte") {
            append_words(thread.entry_accesses, line, {"pa", "upper", "lower"});
        } else if (kind == "rtpte") {
            append_words(thread.entry_accesses, line, {"l1", "l2", "l3", "pte", "pa"});
        }
    }
    return stream;
}

namespace
{

// One host walk by its depth; `levels` directory entries and the page-table entry.
void add_walk(Address_Facts &facts, const std::array<uint64_t, 4> &walk, size_t index, unsigned levels)
{
    const Fact directory[] = {Fact::host_l1, Fact::host_l2, Fact::host_l3};
    for (unsigned level = 0; level < 3 && levels <= 3 && level < levels; ++level)
        facts.add(directory[level], walk[level], index);
    facts.add(Fact::host_pte, walk[3], index);
}

Address_Facts nested(const Recorded_Address &a)
{
    Address_Facts facts;
    for (size_t n = 0; n < a.guest_depth; ++n)
        add_walk(facts, a.host_walk[n], n, a.host_depth - 1);
    for (size_t n = 0; n + 1 < a.guest_depth; ++n)
        facts.add(Fact::host_ra, a.host_ra[n], n);
    const Fact levels[] = {Fact::guest_l1, Fact::guest_l2, Fact::guest_l3};
    for (size_t level = 0; level < 3 && level + 1 < a.guest_depth; ++level)
        facts.add(levels[level], a.guest_walk[level]);
    facts.add(Fact::guest_pte, a.guest_walk[3]);
    facts.add(Fact::guest_ra, a.guest_walk[4]);
    facts.add(Fact::page_number, a.guest_rpn);
    facts.add(Fact::page_size, a.host_page_size);
    facts.add(Fact::guest_page_size, a.guest_page_size);
    return facts;
}

Address_Facts host_only(const Recorded_Address &a)
{
    Address_Facts facts;
    switch (a.mode) {
    case 19:
        facts.add(Fact::vsid, a.vsid >> 8);
        facts.add(Fact::page_number, a.rpn);
        facts.add(Fact::page_size, a.page_size);
        break;
    case 24:
        facts.add(Fact::guest_ra, a.guest_walk[4]);
        [[fallthrough]];
    case 25:
    case 26:
    case 27:
    case 29:
    case 30:
    case 31:
        add_walk(facts, a.host_walk[0], 0, 3);
        facts.add(Fact::page_number, a.host_rpn);
        facts.add(Fact::page_size, a.host_page_size);
        break;
    default:
        break;
    }
    return facts;
}

} // namespace

Address_Facts expected_facts(const Recorded_Address &address, unsigned selector, bool kernel)
{
    if (address.guest_two_level == 0)
        return host_only(address);
    const bool relocated = !kernel || address.relocated;
    return relocated && selector == 23 && address.mode == 23 ? nested(address) : Address_Facts();
}
