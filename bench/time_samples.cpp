#include "time_samples.h"

#include <atomic>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <dlfcn.h>
#include <filesystem>
#include <stdexcept>
#include <ucontext.h>
#include <vector>

namespace bench
{

namespace
{

constexpr long INTERVAL_NANOSECONDS = 199'000; // a prime number of microseconds keeps out of step with loops
constexpr size_t MAX_SAMPLES = 1'000'000;      // more than three minutes

// Filled by the signal handler, which may not allocate.
std::vector<const void *> samples;
std::atomic<size_t> sample_count;

void take_sample(int, siginfo_t *, void *context)
{
    const auto &machine = static_cast<const ucontext_t *>(context)->uc_mcontext;
#if defined(__x86_64__)
    const auto counter = machine.gregs[REG_RIP];
#else
    const auto counter = machine.pc;
#endif
    const size_t number = sample_count.load(std::memory_order_relaxed);
    if (number == samples.size())
        return;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an address of code, which is never followed
    samples[number] = reinterpret_cast<const void *>(counter);
    sample_count.store(number + 1, std::memory_order_relaxed);
}

} // namespace

Time_Samples::Time_Samples()
{
    samples.resize(MAX_SAMPLES);
    sample_count = 0;
    struct sigaction action {
    };
    action.sa_sigaction = take_sample;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaction(SIGPROF, &action, nullptr);
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGPROF;
    const itimerspec interval{{0, INTERVAL_NANOSECONDS}, {0, INTERVAL_NANOSECONDS}};
    // A timer of the processor time would only be as fine as the kernel's tick.
    if (timer_create(CLOCK_MONOTONIC, &event, &timer_) != 0 || timer_settime(timer_, 0, &interval, nullptr) != 0)
        throw std::runtime_error("no timer to take samples with");
}

Time_Samples::~Time_Samples()
{
    timer_delete(timer_);
    std::signal(SIGPROF, SIG_IGN);
}

std::map<std::string, double> Time_Samples::shares() const
{
    const size_t count = sample_count;
    std::map<std::string, double> shares;
    for (size_t i = 0; i < count; ++i) {
        Dl_info object{};
        const bool known = dladdr(samples[i], &object) != 0 && object.dli_fname != nullptr;
        shares[known ? std::filesystem::path(object.dli_fname).filename().string() : ""] +=
            1 / static_cast<double>(count);
    }
    return shares;
}

} // namespace bench
