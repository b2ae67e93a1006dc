// The other threads of a trace, for rules about memory that all of them share.
#pragma once

#include "stored_memory.h"

#include <map>
#include <string>

namespace qtrace_tool
{

class Threads_Beside
{
public:
    // What the threads of a trace stored to, and the file's own number among them.
    struct Place {
        const Thread_Stores &stores;
        size_t thread;
    };
    // Reads the files of all threads of the trace that `file` is of, once, when there are several: those that differ
    // from it in the number at the end of the name. Of one that cannot be read the stores are not known. The result is
    // valid as long as this object.
    Place of(const std::string &file, const Page_Sizes &sizes);

private:
    struct Trace {
        Thread_Stores stores;
        std::map<std::string, size_t> numbers; // by file
    };
    std::map<std::string, Trace> traces_; // by the name of the first file
};

} // namespace qtrace_tool
