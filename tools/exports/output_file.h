// A file that appears under its name only when it is complete.
#pragma once

#include "tool_output.h"

#include <string>

namespace qtrace_tool
{

// From here on an interrupt removes the file or folder (`metadata`, `stream0`, `stream1`, ...) of this name.
void arm_removal(const std::string &path);
void disarm_removal();

// `name`; throws std::runtime_error when it exists, unless `replace`.
const std::string &refuse_existing(const std::string &name, bool replace);

class Output_File
{
public:
    // Refuses a name that exists, unless `replace`. Throws std::system_error or std::runtime_error, like all members.
    Output_File(const std::string &name, bool replace);
    // Removes what was not finished.
    ~Output_File();
    Output_File(const Output_File &) = delete;
    Output_File &operator=(const Output_File &) = delete;

    Output &out() { return out_; }
    const std::string &name() const { return name_; }
    // The unfinished file, for a library that writes it by name.
    const std::string &path() const { return unfinished_; }
    // Throws when something could not be written so far.
    void check();
    // Gives the complete file its name.
    void finish();

private:
    std::string name_, unfinished_;
    bool replace_;
    int descriptor_;
    Output out_;
};

} // namespace qtrace_tool
