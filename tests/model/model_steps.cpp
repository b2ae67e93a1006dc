#include "model_steps.h"

#include "plugin_model.h"

namespace model
{

namespace
{

// "name=value" pairs; members that are zero are left out.
class Line
{
public:
    explicit Line(std::string what) : text_(std::move(what)) {}
    Line &number(const char *name, int64_t value) { return value == 0 ? *this : add(name, std::to_string(value)); }
    Line &hex(const char *name, uint64_t value)
    {
        return value == 0 ? *this : add(name, formatted("0x%lx", value));
    }
    Line &flag(const char *name, bool set)
    {
        if (set)
            text_ += std::string(" ") + name;
        return *this;
    }
    Line &add(const char *name, const std::string &value)
    {
        text_ += std::string(" ") + name + "=" + value;
        return *this;
    }
    const std::string &text() const { return text_; }

private:
    std::string text_;
};

std::string address_text(const char *name, const replay::Address_Answers &a)
{
    Line line("");
    line.number("mode", a.mode).number("host_depth", a.host_depth).number("guest_depth", a.guest_depth);
    line.number("guest_two_level", a.guest_two_level).flag("relocated", a.relocated).number("status", a.status);
    line.hex("ra", a.ra).hex("vsid", a.vsid).hex("rpn", a.rpn).hex("host_rpn", a.host_rpn);
    line.hex("guest_rpn", a.guest_rpn).number("page_size", a.page_size).number("host_page_size", a.host_page_size);
    line.number("guest_page_size", a.guest_page_size);
    if (a.host_walk[0].RTPTE_ra != 0)
        line.flag("walks", true);
    return line.text().empty() ? "" : std::string(" ") + name + "{" + line.text() + " }";
}

std::string registers_text(const char *name, const Plugin_Inst_Registers &r)
{
    Line line("");
    line.number("gpr", r.gpr_num).number("fpr", r.fpr_num).number("spr", r.spr_num);
    line.number("vmx", r.vmx_num).number("vsx", r.vsx_num);
    return line.text().empty() ? "" : std::string(" ") + name + "{" + line.text() + " }";
}

std::string describe(const Set_Context &s)
{
    const replay::Thread_Context &c = s.context;
    Line line("context tid=" + std::to_string(s.tid));
    line.hex("ptcr", c.ptcr).hex("lpid", c.lpid).hex("pid", c.pid).hex("sdr1", c.sdr1);
    line.flag("bit64", c.bit64).flag("little_endian", c.little_endian).flag("kernel", c.kernel);
    line.flag("cycle_mode", c.cycle_mode);
    return line.text() + " pages{ " + page_sizes(c.pages) + "} guest_pages{ " + page_sizes(c.guest_pages) + "}";
}

std::string describe(const Commit &s)
{
    const replay::Instruction &i = s.instruction;
    Line line("commit tid=" + std::to_string(i.tid));
    line.number("seq", static_cast<int64_t>(i.seq)).hex("pc", i.pc).hex("npc", i.npc).hex("op", i.op);
    line.flag("branch", i.branch).flag("unconditional", i.unconditional).flag("taken", i.taken);
    line.flag("load", i.load).flag("store", i.store).flag("cache", i.cache).flag("string", i.string);
    line.flag("exception", i.exception).flag("vmx", i.vmx).flag("vsx", i.vsx).flag("filtered", i.filtered);
    line.flag("sim_support", i.sim_support).number("string_length", i.string_length);
    line.flag("ea_valid", i.ea_valid).hex("ea", i.ea).number("ticks", static_cast<int64_t>(s.ticks));
    if (!i.text.empty())
        line.add("text", "\"" + i.text + "\"");
    return line.text() + address_text("fetch", i.fetch) + address_text("data", i.data) +
           registers_text("in", i.in) + registers_text("out", i.out);
}

std::string describe(const Pre_Execution &s)
{
    return "pre-execution tid=" + std::to_string(s.tid);
}

std::string describe(const Pte_Access &s)
{
    return formatted("pte tid=%d pa=0x%lx upper=0x%lx lower=0x%lx", s.tid, s.info.pa, s.info.pte.upper,
                     s.info.pte.lower);
}

std::string describe(const Rtpte_Access &s)
{
    return formatted("rtpte tid=%d l1=0x%lx l2=0x%lx l3=0x%lx pte=0x%lx pa=0x%lx", s.tid, s.info.RTPDE_ra_l1,
                     s.info.RTPDE_ra_l2, s.info.RTPDE_ra_l3, s.info.RTPTE_ra, s.info.pa);
}

std::string describe(const Console_Command &s)
{
    std::string text = "console";
    for (const std::string &word : s.words)
        text += " \"" + word + "\"";
    return text;
}

std::string describe(const Load_Again &)
{
    return "plugin_init";
}

std::string describe(const Unload &)
{
    return "plugin_quit";
}

std::string describe(const Load_Machine &s)
{
    return "another " + to_text(s.shape) + ", plugin_init";
}

std::string describe(const Fail_Writer &s)
{
    const char *const operations[] = {"open", "header", "record"};
    return formatted("writer fails at %s number %lu from here%s", operations[static_cast<int>(s.operation)], s.k,
                     s.for_ever ? ", and ever after" : "");
}

std::string describe(const Block_File &s)
{
    return "file \"" + s.name + "\" cannot be created";
}

std::string describe(const Near_Report &s)
{
    return "throughput line in " + std::to_string(s.left) + " commits";
}

std::string describe(const Flushed_Instruction &s)
{
    Line line("flushed tid=" + std::to_string(s.tid));
    line.number("seq", static_cast<int64_t>(s.seq))
        .number("terminated_seq", static_cast<int64_t>(s.terminated_seq));
    line.hex("pc", s.pc).hex("npc", s.npc).hex("op", s.op).add("branch", {s.branch}).add("taken", {s.taken});
    return line.flag("store", s.store).hex("ea", s.ea).flag("done", s.done).text();
}

std::string describe(const Pre_Executed_Instruction &s)
{
    return formatted("pre-executed tid=%d seq=%lu r%d=0x%lx", s.tid, s.seq, s.gpr, s.value);
}

std::string describe(const Look_At_Text &)
{
    return "look at the text traces";
}

std::string describe(const Call_Helpers &s)
{
    return "helpers \"" + s.text + "\" " + std::to_string(s.number);
}

} // namespace

std::string to_text(const Step &step)
{
    return std::visit([](const auto &s) { return describe(s); }, step);
}

std::string to_text(const replay::Machine_Shape &shape)
{
    std::string text = formatted("machine processors=%u threads=%u version=0x%x memory=0x%lx", shape.processors,
                                 shape.threads, shape.version, shape.memory);
    for (unsigned option : shape.options)
        text += " option " + std::to_string(option);
    return text;
}

} // namespace model
