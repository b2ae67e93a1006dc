#include "item_view.h"

namespace qtrace_tool
{
namespace
{

class Text_View : public Item_View
{
public:
    Text_View(std::string file, const Field_Selection &fields) : file_(std::move(file)), fields_(fields) {}
    void begin(Output &out, bool named) const override
    {
        if (named)
            out.print("# {}\n", file_);
    }
    void header(Output &out, const QTRACE_Item &item, const Item_Notes &notes) const override
    {
        print_header(out, item, notes);
    }
    void record(Output &out, const QTRACE_Item &item, const Item_Notes &notes) const override
    {
        print_record(out, item, fields_, notes);
    }
    void discontinuity(Output &out, const QTRACE_Item &item) const override { print_discontinuity(out, item); }

private:
    std::string file_;
    Field_Selection fields_;
};

} // namespace

std::unique_ptr<Item_View> make_text_view(const std::string &file, const Field_Selection &fields)
{
    return std::make_unique<Text_View>(file, fields);
}

} // namespace qtrace_tool
