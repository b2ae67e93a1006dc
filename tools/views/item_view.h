// What headers and records look like on standard output. A format is one file in formats/, which defines
// make_NAME_view() for its own name.
#pragma once

#include "record_printer.h"

#include <memory>
#include <string>
#include <vector>

namespace qtrace_tool
{

// Lines of one trace file. Any number of threads may use it at once, each with an output of its own.
class Item_View
{
public:
    virtual ~Item_View() = default;
    // Before the first line; `named`: other files are shown too.
    virtual void begin(Output &out, bool named) const = 0;
    virtual void header(Output &out, const QTRACE_Item &item, const Item_Notes &notes) const = 0;
    virtual void record(Output &out, const QTRACE_Item &item, const Item_Notes &notes) const = 0;
    // Where the trace does not simply go on; nothing for a format that has no line for it.
    virtual void discontinuity(Output &, const QTRACE_Item &) const {}
};

// Names of all formats.
std::vector<std::string> item_formats();
// The view of one of these formats.
std::unique_ptr<Item_View> make_item_view(const std::string &format, const std::string &file,
                                          const Field_Selection &fields);

} // namespace qtrace_tool
