#include "player.h"

#include <cerrno>
#include <cstring>
#include <fmt/os.h>
#include <fmt/ranges.h>
#include <numeric>

namespace replay
{

namespace
{

constexpr uint64_t EVENTS_PER_PROGRESS = 1 << 13;

bool is_event(Event_Kind kind)
{
    return kind != Event_Kind::machine && kind != Event_Kind::context;
}

} // namespace

Player::Player(const std::string &file) : file_(file), reader_(file, &stop_)
{
    const Stream_Event *first = reader_.next();
    if (!first)
        return;
    source_ = first->source;
    host().reset(first->machine);
    ++counts_[static_cast<size_t>(Event_Kind::machine)];
    host().set_session_listener([this](std::string_view what) { on_session(what); });
}

Player::~Player()
{
    plugin_.unload();
    host().set_session_listener({});
}

uint64_t Player::events() const
{
    return lines_of(Event_Kind::commit) + lines_of(Event_Kind::pre) + lines_of(Event_Kind::pte) +
           lines_of(Event_Kind::rtpte);
}

bool Player::deliver(const Stream_Event &event)
{
    ++counts_[static_cast<size_t>(event.kind)];
    switch (event.kind) {
    case Event_Kind::machine:
        break;
    case Event_Kind::context:
        host().set_context(event.instruction.tid, event.context);
        break;
    case Event_Kind::commit:
        host().set_raw_time(event.time.value_or(host().raw_time() + 1));
        plugin_.commit(event.instruction);
        break;
    case Event_Kind::pre:
        plugin_.pre_execution(event.instruction);
        break;
    case Event_Kind::pte:
        plugin_.pte_access(event.instruction, event.pte);
        break;
    case Event_Kind::rtpte:
        plugin_.rtpte_access(event.instruction, event.rtpte);
        break;
    }
    return is_event(event.kind);
}

Player::End Player::run(uint64_t limit)
{
    uint64_t delivered = 0;
    while (delivered < limit) {
        const Stream_Event *event = stop_.load(std::memory_order_relaxed) ? nullptr : reader_.next();
        if (!event)
            return reader_.error() ? End::refused_input : stop_ ? End::stopped : End::end_of_stream;
        if (!deliver(*event))
            continue;
        if (++delivered % EVENTS_PER_PROGRESS == 0 && progress_)
            progress_();
    }
    return End::limit;
}

void Player::on_session(std::string_view what)
{
    constexpr std::string_view WARM = "warm ";
    if (!what.starts_with(WARM)) {
        session_open_ = what == "start";
        return;
    }
    const std::string problem = write_warm_file(std::string(what.substr(WARM.size())));
    if (!problem.empty())
        host().say({Channel::error, 0, "replay", 0, problem});
}

namespace
{

std::string context_line(int tid, const Thread_Context &context)
{
    return fmt::format(
        R"({{"t":"context","tid":{},"ptcr":"{:#x}","lpid":"{:#x}","pid":{},"sdr1":"{:#x}",)"
        R"("bit64":{},"little_endian":{},"kernel":{},"cycle_mode":{},"pages":[{}],"guest_pages":[{}]}})",
        tid, context.ptcr, context.lpid, context.pid, context.sdr1, context.bit64, context.little_endian,
        context.kernel, context.cycle_mode, page_words(context.pages), page_words(context.guest_pages));
}

} // namespace

std::string write_warm_file(const std::string &file)
{
    const Machine_Shape &shape = host().shape();
    try {
        auto out = fmt::output_file(file);
        out.print(R"({{"t":"machine","processors":{},"threads":{},"version":{},"memory":"{:#x}","options":[{}]}})"
                  "\n",
                  shape.processors, shape.threads, shape.version, shape.memory, fmt::join(shape.options, ","));
        for (int tid = 0; tid < host().thread_count(); ++tid)
            out.print("{}\n", context_line(tid, host().context(tid)));
        out.close();
    } catch (const std::system_error &problem) {
        return file + ": " + problem.code().message();
    }
    return {};
}

} // namespace replay
