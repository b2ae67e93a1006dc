// A reader in C++: the address of the last record of a trace. Built against the installed tree by way of
// find_package.
#include <qtrace_reader.h>

#include <cstdint>
#include <cstdio>
#include <memory>

int main(int argc, char **argv)
{
    const std::unique_ptr<QTRACE_Reader, decltype(&qtrace_close)> reader(
        argc == 2 ? qtrace_open(argv[1], nullptr) : nullptr, &qtrace_close);
    if (!reader)
        return 1;
    const QTRACE_Item *item = nullptr;
    uint64_t address = 0;
    for (QTRACE_ITEM kind; (kind = qtrace_next(reader.get(), &item)) != QTRACE_ITEM_END;)
        if (kind == QTRACE_ITEM_RECORD)
            address = item->address;
    std::printf("%llx\n", static_cast<unsigned long long>(address));
    return 0;
}
