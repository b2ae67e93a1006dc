#include "stop_request.h"

#include <cerrno>
#include <iterator>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace replay
{

Stop_Request::Stop_Request() : wakeup_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (wakeup_ < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
}

Stop_Request::~Stop_Request()
{
    close(wakeup_);
}

void Stop_Request::request() noexcept
{
    const int kept = errno; // an interrupted call looks at it
    requested_ = true;
    eventfd_write(wakeup_, 1);
    errno = kept;
}

void Stop_Request::forget() noexcept
{
    requested_ = false;
    eventfd_t count;
    eventfd_read(wakeup_, &count);
}

bool Stop_Request::wait_for_input(int descriptor) const
{
    while (!requested()) {
        pollfd waiting[] = {{descriptor, POLLIN, 0}, {wakeup_, POLLIN, 0}};
        if (poll(waiting, std::size(waiting), -1) > 0 && waiting[0].revents)
            return !requested();
    }
    return false;
}

} // namespace replay
