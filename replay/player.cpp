#include "player.h"

#include "read_ahead.h"
#include "warm_file.h"

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

Player::Player(const std::string &file, Stop_Request *stop)
    : own_stop_(stop ? nullptr : std::make_unique<Stop_Request>()), stop_(stop ? stop : own_stop_.get()),
      file_(file), events_(std::make_unique<Read_Ahead>(file, *stop_))
{
    take_machine();
}

Player::Player(const std::string &name, std::unique_ptr<Event_Source> events, Stop_Request *stop)
    : own_stop_(stop ? nullptr : std::make_unique<Stop_Request>()), stop_(stop ? stop : own_stop_.get()),
      file_(name), events_(std::move(events))
{
    take_machine();
}

void Player::take_machine()
{
    const Stream_Event *first = events_->next();
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

void Player::unload_plugin()
{
    plugin_.unload();
    session_open_ = false;
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
        const Stream_Event *event = stop_->requested() ? nullptr : events_->next();
        if (!event)
            return error() ? End::refused_input : stop_->requested() ? End::stopped : End::end_of_stream;
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

} // namespace replay
