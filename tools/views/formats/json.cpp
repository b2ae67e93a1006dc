#include "item_view.h"

namespace qtrace_tool
{
namespace
{

// Every line begins with the file.
std::string beginning(const std::string &file)
{
    Output text;
    Json_Writer json(text);
    json.begin_object();
    json.member("file", file);
    return text.take();
}

class Json_View : public Item_View
{
public:
    Json_View(const std::string &file, const Field_Selection &fields) : beginning_(beginning(file)), fields_(fields)
    {
    }
    void begin(Output &, bool) const override {}
    void header(Output &out, const QTRACE_Item &item, const Item_Notes &notes) const override
    {
        print_header_json(out, item, beginning_, notes);
    }
    void record(Output &out, const QTRACE_Item &item, const Item_Notes &notes) const override
    {
        print_record_json(out, item, beginning_, fields_, notes);
    }
    void discontinuity(Output &out, const QTRACE_Item &item) const override
    {
        print_discontinuity_json(out, item, beginning_);
    }

private:
    std::string beginning_;
    Field_Selection fields_;
};

} // namespace

std::unique_ptr<Item_View> make_json_view(const std::string &file, const Field_Selection &fields)
{
    return std::make_unique<Json_View>(file, fields);
}

} // namespace qtrace_tool
