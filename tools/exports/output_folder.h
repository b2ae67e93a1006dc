// A folder of files that appears under its name only when it is complete.
#pragma once

#include "tool_output.h"

#include <memory>
#include <string>

namespace qtrace_tool
{

// One of its files, which is written while no other one is.
class Folder_File
{
public:
    // Creates the file. Throws std::system_error, like close().
    Folder_File(const std::string &path, const std::string &shown);
    ~Folder_File();
    Folder_File(const Folder_File &) = delete;
    Folder_File &operator=(const Folder_File &) = delete;

    Output &out() { return out_; }
    // Throws when something could not be written so far.
    void check();
    void close();

private:
    std::string shown_; // the name that errors tell
    int descriptor_;
    Output out_;
};

// Its files are `metadata` and `stream0`, `stream1`, ... without a number left out.
class Output_Folder
{
public:
    // Refuses a name that exists, unless `replace`; then it must be a file, or a folder of such files alone. Throws
    // std::system_error or std::runtime_error, like all members.
    Output_Folder(const std::string &name, bool replace);
    // Removes what was not finished.
    ~Output_Folder();
    Output_Folder(const Output_Folder &) = delete;
    Output_Folder &operator=(const Output_Folder &) = delete;

    const std::string &name() const { return name_; }
    std::unique_ptr<Folder_File> metadata() const;
    std::unique_ptr<Folder_File> stream(size_t number) const;
    // Gives the complete folder its name.
    void finish();

private:
    std::string name_, unfinished_;
    bool replace_;
};

} // namespace qtrace_tool
