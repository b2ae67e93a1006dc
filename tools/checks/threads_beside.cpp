#include "threads_beside.h"

#include "trace_files.h"

namespace qtrace_tool
{

static void read_stores(const std::string &file, const Page_Sizes &sizes, Thread_Stores &stores)
{
    const Reader reader(qtrace_open(file.c_str(), nullptr));
    const QTRACE_Item *item = nullptr;
    for (;;)
        switch (reader ? qtrace_next(reader.get(), &item) : QTRACE_ITEM_ERROR) {
        case QTRACE_ITEM_HEADER:
            stores.header(item->header);
            break;
        case QTRACE_ITEM_RECORD:
            stores.record(item->record, sizes);
            break;
        case QTRACE_ITEM_DISCONTINUITY: // a pause is one too
            stores.lose();
            break;
        case QTRACE_ITEM_ERROR:
            stores.lose();
            return;
        case QTRACE_ITEM_END:
            return;
        }
}

Threads_Beside::Place Threads_Beside::of(const std::string &file, const Page_Sizes &sizes)
{
    const std::vector<std::string> files = threads_of(file);
    const auto [trace, added] = traces_.try_emplace(files.front());
    if (added)
        for (const std::string &name : files) {
            trace->second.numbers[name] = trace->second.stores.add_thread();
            if (files.size() > 1)
                read_stores(name, sizes, trace->second.stores);
        }
    return {trace->second.stores, trace->second.numbers.at(file)};
}

} // namespace qtrace_tool
