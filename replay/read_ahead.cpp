#include "read_ahead.h"

#include <csignal>
#include <pthread.h>
#include <system_error>

namespace replay
{

Read_Ahead::Read_Ahead(const std::string &file, Stop_Request &stop)
    : stop_(stop), reader_(file, &stop), size_(reader_.input_size()), error_(reader_.error())
{
}

// The thread may wait for input: a request to stop ends that.
Read_Ahead::~Read_Ahead()
{
    if (!thread_.joinable())
        return;
    const bool requested = stop_.requested();
    {
        const std::lock_guard lock(mutex_);
        quitting_ = true;
    }
    changed_.notify_all();
    stop_.request();
    thread_.join();
    if (!requested)
        stop_.forget();
}

// Signals are the first thread's: they interrupt what it waits for. Where no thread can be had, next() reads by itself.
void Read_Ahead::start()
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        thread_ = std::thread([this] { read(); });
    } catch (const std::system_error &) {
        alone_ = true;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// ---- the reading thread ---------------------------------------------------------------------------------

void Read_Ahead::read()
{
    while (wait_for_room()) {
        Batch &batch = batches_[filled_ % BATCHES];
        fill(batch);
        const Ending ending = batch.ending;
        {
            const std::lock_guard lock(mutex_);
            ++filled_;
        }
        changed_.notify_all();
        if (ending == Ending::over || (ending == Ending::interrupted && !wait_for_continuation()))
            return;
    }
}

// Events that are there are handed on before the next one is waited for.
void Read_Ahead::fill(Batch &batch)
{
    batch.count = 0;
    batch.ending = Ending::none;
    while (batch.count < EVENTS && (batch.count == 0 || !reader_.may_wait())) {
        Slot &slot = batch.slots[batch.count];
        if (!reader_.next(slot.event)) {
            batch.ending = reader_.error() || reader_.at_end() ? Ending::over : Ending::interrupted;
            batch.end = position_of_reader();
            return;
        }
        slot.position = position_of_reader();
        ++batch.count;
    }
}

Read_Ahead::Position Read_Ahead::position_of_reader() const
{
    return {reader_.line_number(), reader_.bytes_used()};
}

bool Read_Ahead::wait_for_room()
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return quitting_ || filled_ - released_ < BATCHES; });
    return !quitting_;
}

bool Read_Ahead::wait_for_continuation()
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return quitting_ || continuing_; });
    continuing_ = false;
    return !quitting_;
}

// ---- the thread that asks -------------------------------------------------------------------------------

const Stream_Event *Read_Ahead::next()
{
    if (error_)
        return nullptr;
    if (!thread_.joinable() && !alone_)
        start();
    if (alone_)
        return next_alone();
    for (;;) {
        if (!batch_)
            wait_for_batch();
        if (handed_out_ < batch_->count) {
            Slot &slot = batch_->slots[handed_out_++];
            position_ = slot.position;
            return &slot.event;
        }
        if (batch_->ending == Ending::over) {
            position_ = batch_->end;
            error_ = reader_.error(); // its thread has ended, or touches it no more
            return nullptr;
        }
        if (batch_->ending == Ending::interrupted && stop_.requested())
            return nullptr;
        release_batch();
    }
}

const Stream_Event *Read_Ahead::next_alone()
{
    Stream_Event &event = batches_.front().slots.front().event;
    const bool found = reader_.next(event);
    position_ = position_of_reader();
    error_ = reader_.error();
    return found ? &event : nullptr;
}

void Read_Ahead::wait_for_batch()
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return filled_ > released_; });
    batch_ = &batches_[released_ % BATCHES];
    handed_out_ = 0;
}

void Read_Ahead::release_batch()
{
    {
        const std::lock_guard lock(mutex_);
        ++released_;
        continuing_ = batch_->ending == Ending::interrupted;
    }
    changed_.notify_all();
    batch_ = nullptr;
}

} // namespace replay
