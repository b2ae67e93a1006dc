#include "traced_session.h"

#include <dlfcn.h>
#include <stdexcept>

namespace bench
{

void *load_object(const std::string &file)
{
    void *library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library)
        throw std::runtime_error(dlerror());
    return library;
}

void *find_function(void *library, const char *name)
{
    void *function = dlsym(library, name);
    if (!function)
        throw std::runtime_error(dlerror());
    return function;
}

template <class Function> static void find(Function &function, void *library, const char *name)
{
    function = reinterpret_cast<Function>(find_function(library, name));
}

Writer load_writer(const std::string &file)
{
    void *library = load_object(file);
    Writer writer{};
    find(writer.open, library, "QTRACE_Fopen");
    find(writer.close, library, "QTRACE_Fclose");
    find(writer.write_header, library, "QTRACE_FwriteFileHeader");
    find(writer.write_record, library, "QTRACE_FwriteRecord");
    return writer;
}

Plugin::Plugin(const std::string &file)
{
    void *library = load_object(file);
    find(init_, library, "plugin_init");
    find(quit_, library, "plugin_quit");
    find(signal_, library, "plugin_signal");
    find(commit, library, "Event_Instruction_Commit");
    find(pre_execution, library, "Event_Instruction_PreExecution");
    find(pte_access, library, "Event_PTE_Access");
    find(rtpte_access, library, "Event_RTPTE_Access");
}

void Plugin::initialize(uint32_t threads, uint32_t version, uint64_t memory)
{
    quit_();
    set_machine(threads, version, memory);
    init_(0, nullptr, nullptr);
}

void Plugin::signal(std::vector<std::string> words)
{
    words.insert(words.begin(), "plugin");
    std::vector<char *> argv;
    argv.reserve(words.size());
    for (std::string &word : words)
        argv.push_back(word.data());
    signal_(static_cast<int>(argv.size()), argv.data());
}

void Plugin::start(const std::string &trace, const std::string &text, const std::string &pte)
{
    std::vector<std::string> words{"start", trace};
    if (!text.empty())
        words.insert(words.end(), {"txt", text});
    if (!pte.empty())
        words.insert(words.end(), {"pte", pte});
    signal(words);
}

void Plugin::stop()
{
    signal({"stop"});
}

} // namespace bench
