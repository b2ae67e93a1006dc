// A plugin as the host sees it: a shared object with entry points and event handlers found by name.
#pragma once

#include "host.h"

#include <string>
#include <vector>

namespace replay
{

class Plugin_Module
{
public:
    Plugin_Module() = default;
    ~Plugin_Module(); // unloads
    Plugin_Module(const Plugin_Module &) = delete;
    Plugin_Module &operator=(const Plugin_Module &) = delete;

    // Loads the shared object `file`, calls plugin_init and looks up the handlers of the returned table, and
    // Event_RTPTE_Access by its own name. `file` is a path, never searched for. Names in the table that stand for
    // no event of this host must be exported too, and are never called. Returns an empty text, or what went wrong
    // (nothing is loaded then).
    std::string load(const std::string &file);

    // plugin_quit, then the shared object is closed.
    void unload();
    bool loaded() const { return library_ != nullptr; }
    const std::string &file() const { return file_; }
    const std::vector<std::string> &events() const { return events_; } // names of the handlers that were found

    // plugin_signal with `words` after the plugin's file name, or after what the user typed for it.
    void signal(const std::vector<std::string> &words) { signal(file_, words); }
    void signal(const std::string &typed, const std::vector<std::string> &words);

    // Deliver one event; nothing happens when the plugin has no handler for it.
    void commit(const Instruction &instruction); // raw time is the caller's to move
    void pre_execution(const Instruction &instruction);
    void pte_access(const Instruction &instruction, PTE_Event_Info info);
    void rtpte_access(const Instruction &instruction, RTPTE_Event_Info info);

    // Address of an exported name, or null.
    void *symbol(const char *name) const;

private:
    std::string subscribe();
    std::string find_handlers(const char *const *names);
    void close_library();

    std::string file_;
    std::vector<std::string> events_;
    void *library_ = nullptr;
    void (*signal_)(int, char **) = nullptr;
    void (*quit_)() = nullptr;
    void (*on_commit_)(void *) = nullptr;
    void (*on_pre_execution_)(void *) = nullptr;
    void (*on_pte_)(void *, PTE_Event_Info *) = nullptr;
    void (*on_rtpte_)(void *, RTPTE_Event_Info *) = nullptr;
};

} // namespace replay
