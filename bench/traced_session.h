// The plugin as a host has it: loaded as a shared object, driven by commands and events.
#pragma once

#include "bench_host.h"

#include <string>
#include <vector>

namespace bench
{

using Handler = void (*)(void *iop);

// A function of a loaded object. Throws std::runtime_error when there is none of that name.
void *find_function(void *library, const char *name);

// Loads a shared object. Throws std::runtime_error when that fails.
void *load_object(const std::string &file);

// The reference writer, with its functions bound to itself.
Writer load_writer(const std::string &file);

class Plugin
{
public:
    explicit Plugin(const std::string &file);

    // Makes the host a machine of `threads` hardware threads and initializes the plugin on it.
    void initialize(uint32_t threads, uint32_t version, uint64_t memory);

    void start(const std::string &trace, const std::string &text = {}, const std::string &pte = {});
    void stop();

    Handler commit, pre_execution;
    void (*pte_access)(void *iop, PTE_Event_Info *info);
    void (*rtpte_access)(void *iop, RTPTE_Event_Info *info);

private:
    void signal(std::vector<std::string> words);

    void *(*init_)(int, char **, void *);
    void (*quit_)();
    void (*signal_)(int, char **);
};

} // namespace bench
