// Traces to be compared with each other, and what `qtrace diff` finds.
#pragma once

#include "planted_trace.h"

#include <nlohmann/json.hpp>

namespace planted
{

inline nlohmann::json difference(const std::string &a, const std::string &b, std::vector<std::string> options = {})
{
    std::vector<std::string> arguments = {"diff", "--json", a, b};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return nlohmann::json::parse(qtrace(arguments).out);
}

// Records with registers that never repeat, in blocks of some thousand records.
inline Trace numbered_trace(size_t records)
{
    Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD]};
    uint64_t noise = 1;
    for (size_t i = 1; i < records; i++) {
        Item item{false, {}, "", plain_record(0x7c000214)};
        item.record.header.control.fld.register_trace_present = 1;
        item.record.regs.num_gprs_out = 1;
        noise = noise * 6364136223846793005u + 1442695040888963407u;
        item.record.regs.gpr_out[0] = {static_cast<uint16_t>(i % 32), noise};
        trace.push_back(item);
    }
    return trace;
}

// The same with more registers: blocks of some hundred records.
inline Trace wide_trace(size_t records)
{
    Trace trace = numbered_trace(records);
    for (size_t i = 2; i < trace.size(); i++) {
        QTRACE_REGISTERS &registers = trace[i].record.regs;
        registers.num_vsxrs_in = registers.num_vsxrs_out = 3;
        for (size_t place = 0; place < 3; place++) {
            const uint64_t value = registers.gpr_out[0].value + place;
            registers.vsxr_in[place] = {static_cast<uint16_t>(place), {~value, value}};
            registers.vsxr_out[place] = {static_cast<uint16_t>(place), {value << 1, ~value << 1}};
        }
    }
    return trace;
}

} // namespace planted
