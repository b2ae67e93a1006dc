#include "tool_run.h"

#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

namespace qtrace_tool
{

static bool wants_colour(int descriptor)
{
    const char *terminal = std::getenv("TERM");
    return isatty(descriptor) != 0 && std::getenv("NO_COLOR") == nullptr && terminal != nullptr &&
           std::strcmp(terminal, "dumb") != 0;
}

// COLUMNS comes first, as users set it on purpose.
static size_t columns_of(int descriptor)
{
    if (isatty(descriptor) == 0)
        return 0;
    const char *const wanted = std::getenv("COLUMNS");
    if (const unsigned long columns = wanted == nullptr ? 0 : std::strtoul(wanted, nullptr, 10); columns > 0)
        return columns;
    winsize size{};
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

Tool_Run::Tool_Run(int out_descriptor, int err_descriptor)
    : out(out_descriptor, wants_colour(out_descriptor)), err(err_descriptor, wants_colour(err_descriptor)),
      columns(columns_of(out_descriptor)), progress(isatty(err_descriptor) != 0)
{
}

void Tool_Run::message(std::string_view text)
{
    out.flush(); // so that data and messages on one terminal keep their order
    if (before_message)
        before_message();
    err.print("qtrace: {}\n", text);
    err.flush();
}

void Tool_Run::fail(std::string_view text)
{
    failed_ = true;
    message(text);
}

void Tool_Run::warn(std::string_view text)
{
    findings_ = true;
    message(text);
}

Exit_Code Tool_Run::exit_code()
{
    out.flush();
    if (out.error() != 0)
        fail(fmt::format("standard output: {}", std::strerror(out.error())));
    return failed_ ? EXIT_FAILED : findings_ ? EXIT_FINDINGS : EXIT_FINE;
}

Progress::Progress(Tool_Run &run, std::string_view what, uint64_t total) : run_(run), what_(what), total_(total)
{
    run_.before_message = [this] { erase(); };
    run_.out.before_writing(run_.before_message);
}

Progress::~Progress()
{
    erase();
    run_.before_message = nullptr;
    run_.out.before_writing(nullptr);
}

void Progress::erase()
{
    if (!visible_)
        return;
    visible_ = false;
    run_.err.put("\r\x1b[K");
    run_.err.flush();
}

void Progress::show()
{
    using Seconds = std::chrono::duration<double>;
    const Clock::time_point now = Clock::now();
    if (now - shown_ < std::chrono::milliseconds(shown_ > start_ ? 200 : 1000))
        return;
    shown_ = now;
    run_.out.flush();
    visible_ = true;
    const double rate = static_cast<double>(done_) / Seconds(now - start_).count();
    run_.err.print("\r\x1b[K{}: {} records", what_, done_);
    if (total_ > done_)
        run_.err.print(", {:.0f} %, {:.1f} M/s, {:.0f} s left",
                       100.0 * static_cast<double>(done_) / static_cast<double>(total_), rate / 1e6,
                       static_cast<double>(total_ - done_) / rate);
    else
        run_.err.print(", {:.1f} M/s", rate / 1e6);
    run_.err.flush();
}

} // namespace qtrace_tool
