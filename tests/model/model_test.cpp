// Random machines, streams and console commands into the plugin and into a plain model of it.
//
//     model_test [--long] [--seed N] [--runs N] [--no-shrink]
//
// --long, or QT_LONG in the environment, takes thirty times as many steps. --runs 1 --seed N repeats one run.
#include "model_run.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace
{

struct Options {
    uint64_t seed = 1;
    uint64_t runs = 0; // 0: as many as it takes for the two below
    uint64_t commits = 100'000;
    uint64_t commands = 2'000;
    bool shrinks = true; // a run with a mismatch before it is shown
};

Options options_of(int argc, char **argv)
{
    Options options;
    bool is_long = std::getenv("QT_LONG") != nullptr;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--long") {
            is_long = true;
        } else if (word == "--no-shrink") {
            options.shrinks = false;
        } else if ((word == "--seed" || word == "--runs") && i + 1 < argc) {
            (word == "--seed" ? options.seed : options.runs) = std::strtoull(argv[++i], nullptr, 0);
        } else {
            std::fprintf(stderr, "usage: model_test [--long] [--seed N] [--runs N] [--no-shrink]\n");
            std::exit(2);
        }
    }
    if (is_long) {
        options.commits *= 30;
        options.commands *= 30;
    }
    return options;
}

char repeat_hint[100]; // what to say when the process is ended by a signal

void tell_seed(int signal)
{
    [[maybe_unused]] const auto written = write(STDERR_FILENO, repeat_hint, sizeof repeat_hint);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

int report(uint64_t seed, const model::Run &run, const model::Mismatch &mismatch, bool shrinks)
{
    std::printf("seed %lu, step %zu: %s\n", seed, mismatch.step, mismatch.what.c_str());
    if (!shrinks)
        return 1;
    std::printf("shrinking ...\n");
    std::fflush(stdout);
    const model::Run small = model::shrunk(run);
    std::printf("%s\n", model::to_text(small.shape).c_str());
    for (const model::Step &step : small.steps)
        std::printf("  %s\n", model::to_text(step).c_str());
    model::Figures figures;
    if (const auto found = model::play(small, figures))
        std::printf("last step: %s\n", found->what.c_str());
    std::printf("repeat with: model_test --runs 1 --seed %lu\n", seed);
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = options_of(argc, argv);
    for (int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE})
        std::signal(signal, tell_seed);
    const auto began = std::chrono::steady_clock::now();
    model::Figures figures;
    uint64_t runs = 0;
    const auto is_enough = [&] {
        return options.runs > 0 ? runs == options.runs
                                : figures.commits >= options.commits && figures.commands >= options.commands;
    };
    for (; !is_enough(); ++runs) {
        const uint64_t seed = options.seed + runs;
        std::snprintf(repeat_hint, sizeof repeat_hint, "\nrepeat with: model_test --runs 1 --seed %lu\n", seed);
        const model::Run run = model::random_run(seed);
        if (const auto mismatch = model::play(run, figures))
            return report(seed, run, *mismatch, options.shrinks);
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    std::printf(
        "%lu runs (seeds %lu to %lu), %lu commits, %lu commands, %lu records, %lu headers, %lu bytes of text "
        "and page-table-entry files, %.1f s: no mismatch\n",
        runs, options.seed, options.seed + runs - 1, figures.commits, figures.commands, figures.records,
        figures.headers, figures.file_bytes, took.count());
    return 0;
}
