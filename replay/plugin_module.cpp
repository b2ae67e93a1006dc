#include "plugin_module.h"

#include "shared_object.h"

#include <dlfcn.h>
#include <string_view>

namespace replay
{

namespace
{

// A leak report names the plugin's functions only while its code is mapped.
#ifdef __SANITIZE_ADDRESS__
constexpr int MAPPING = RTLD_LOCAL | RTLD_NODELETE;
#else
constexpr int MAPPING = RTLD_LOCAL;
#endif

// FILE is a path, also without a slash in it: no search along the library path.
std::string as_path(const std::string &file)
{
    return file.find('/') == std::string::npos ? "./" + file : file;
}

template <class Function> bool find(void *library, const char *name, Function *&function)
{
    function = reinterpret_cast<Function *>(dlsym(library, name));
    return function != nullptr;
}

} // namespace

Plugin_Module::~Plugin_Module()
{
    unload();
}

std::string Plugin_Module::load(const std::string &file)
{
    if (loaded())
        return file_ + " is loaded already";
    if (std::string problem = shared_object_problem(file); !problem.empty())
        return problem;
    file_ = file;
    library_ = dlopen(as_path(file).c_str(), RTLD_NOW | MAPPING);
    if (!library_) {
        file_.clear();
        return dlerror();
    }
    try {
        std::string problem = subscribe();
        if (!problem.empty())
            close_library();
        return problem;
    } catch (const std::bad_alloc &) {
        close_library();
        throw;
    }
}

std::string Plugin_Module::subscribe()
{
    void *(*plugin_init)(int, char **, void *) = nullptr;
    if (!find(library_, "plugin_init", plugin_init))
        return file_ + " has no plugin_init";
    if (!find(library_, "plugin_signal", signal_))
        return file_ + " has no plugin_signal";
    if (!find(library_, "plugin_quit", quit_))
        return file_ + " has no plugin_quit";
    char *argv[] = {file_.data(), nullptr};
    const auto *names = static_cast<const char *const *>(plugin_init(1, argv, host().client_data()));
    if (!names)
        return file_ + " refused to be loaded: plugin_init returned no event table";
    std::string problem = find_handlers(names);
    if (!problem.empty())
        quit_();
    return problem;
}

std::string Plugin_Module::find_handlers(const char *const *names)
{
    for (; *names; ++names) {
        const std::string_view name = *names;
        bool found = symbol(*names) != nullptr;
        if (name == "Event_Instruction_Commit")
            found = find(library_, *names, on_commit_);
        else if (name == "Event_Instruction_PreExecution")
            found = find(library_, *names, on_pre_execution_);
        else if (name == "Event_PTE_Access")
            found = find(library_, *names, on_pte_);
        if (!found)
            return file_ + " does not export its handler " + *names;
        events_.emplace_back(name);
    }
    if (find(library_, "Event_RTPTE_Access", on_rtpte_)) // stands in no table; a plugin may do without
        events_.emplace_back("Event_RTPTE_Access");
    return {};
}

void Plugin_Module::unload()
{
    if (!loaded())
        return;
    quit_();
    close_library();
}

void Plugin_Module::close_library()
{
    dlclose(library_);
    library_ = nullptr;
    file_.clear();
    events_.clear();
    signal_ = nullptr;
    quit_ = nullptr;
    on_commit_ = nullptr;
    on_pre_execution_ = nullptr;
    on_pte_ = nullptr;
    on_rtpte_ = nullptr;
}

void Plugin_Module::signal(const std::string &typed, const std::vector<std::string> &words)
{
    if (!signal_)
        return;
    std::vector<std::string> all{typed};
    all.insert(all.end(), words.begin(), words.end());
    std::vector<char *> argv;
    argv.reserve(all.size() + 1);
    for (std::string &word : all)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    signal_(static_cast<int>(all.size()), argv.data());
}

void Plugin_Module::commit(const Instruction &instruction)
{
    if (on_commit_)
        on_commit_(handle_of(instruction));
}

void Plugin_Module::pre_execution(const Instruction &instruction)
{
    if (on_pre_execution_)
        on_pre_execution_(handle_of(instruction));
}

void Plugin_Module::pte_access(const Instruction &instruction, PTE_Event_Info info)
{
    if (on_pte_)
        on_pte_(handle_of(instruction), &info);
}

void Plugin_Module::rtpte_access(const Instruction &instruction, RTPTE_Event_Info info)
{
    if (on_rtpte_)
        on_rtpte_(handle_of(instruction), &info);
}

void *Plugin_Module::symbol(const char *name) const
{
    return library_ ? dlsym(library_, name) : nullptr;
}

} // namespace replay
