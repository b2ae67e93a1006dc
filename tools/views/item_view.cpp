#include "item_view.h"

#include <algorithm>

namespace qtrace_tool
{

#define FORMAT(name)                                                                                               \
    std::unique_ptr<Item_View> make_##name##_view(const std::string &file, const Field_Selection &fields);
#include "item_formats.inc"
#undef FORMAT

namespace
{

struct Format {
    const char *name;
    std::unique_ptr<Item_View> (*make)(const std::string &file, const Field_Selection &fields);
};

#define FORMAT(name) {#name, make_##name##_view},
constexpr Format FORMATS[] = {
#include "item_formats.inc"
};
#undef FORMAT

} // namespace

std::vector<std::string> item_formats()
{
    std::vector<std::string> names;
    for (const Format &format : FORMATS)
        names.emplace_back(format.name);
    return names;
}

std::unique_ptr<Item_View> make_item_view(const std::string &format, const std::string &file,
                                          const Field_Selection &fields)
{
    const auto row = std::ranges::find(FORMATS, format, &Format::name);
    return row->make(file, fields);
}

} // namespace qtrace_tool
