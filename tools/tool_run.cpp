#include "tool_run.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace qtrace_tool
{

static bool wants_colour(int descriptor)
{
    const char *terminal = std::getenv("TERM");
    return isatty(descriptor) != 0 && std::getenv("NO_COLOR") == nullptr && terminal != nullptr &&
           std::strcmp(terminal, "dumb") != 0;
}

Tool_Run::Tool_Run(int out_descriptor, int err_descriptor)
    : out(out_descriptor, wants_colour(out_descriptor)), err(err_descriptor, wants_colour(err_descriptor)),
      progress(isatty(err_descriptor) != 0)
{
}

void Tool_Run::message(std::string_view text)
{
    out.flush(); // so that data and messages on one terminal keep their order
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
}

Progress::~Progress()
{
    if (visible_) {
        run_.err.put("\r\x1b[K");
        run_.err.flush();
    }
}

void Progress::show()
{
    using Seconds = std::chrono::duration<double>;
    const Clock::time_point now = Clock::now();
    if (now - shown_ < std::chrono::milliseconds(visible_ ? 200 : 1000))
        return;
    shown_ = now;
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
