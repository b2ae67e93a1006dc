// A flat profile in the format of callgrind: what was executed and accessed at each address, by page.
#include "exporter.h"

#include "address_view.h"
#include "instruction_kinds.h"

#include <map>

namespace qtrace_tool
{
namespace
{

using namespace trace;

struct Costs {
    uint64_t instructions = 0, loads = 0, stores = 0, walks = 0;
    void add(const Costs &other)
    {
        instructions += other.instructions;
        loads += other.loads;
        stores += other.stores;
        walks += other.walks;
    }
};

bool has_walk(const Translated_Address &address)
{
    return address.present && address.pieces != 0 && address.pair().walk != Walk_Kind::none;
}

class Callgrind_Exporter : public Exporter
{
public:
    explicit Callgrind_Exporter(Output_File &file) : file_(file) {}
    void record(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) override;
    void finish() override;

private:
    void put(const Costs &costs);

    Output_File &file_;
    std::map<uint64_t, Costs> costs_; // by instruction address
};

void Callgrind_Exporter::record(const QTRACE_Item &item, const QTRACE_FILE_HDR *)
{
    const uint32_t kinds = kinds_of(item.record, item.address);
    const uint64_t walks =
        uint64_t{has_walk(data_address_of(item.record))} + has_walk(next_address_of(item.record));
    costs_[item.address].add({1, (kinds & QTRACE_KIND_LOAD) != 0, (kinds & QTRACE_KIND_STORE) != 0, walks});
}

void Callgrind_Exporter::put(const Costs &costs)
{
    file_.out().print("{} {} {} {}\n", costs.instructions, costs.loads, costs.stores, costs.walks);
}

void Callgrind_Exporter::finish()
{
    constexpr unsigned PAGE_BITS = Translated_Address::PAGE_NUMBER_BITS;
    Output &out = file_.out();
    out.put("# callgrind format\nversion: 1\ncreator: qtrace\n"
            "event: Ir : instructions\nevent: Dr : loads\nevent: Dw : stores\nevent: Twalk : table walks recorded\n"
            "positions: instr line\nevents: Ir Dr Dw Twalk\n\nfl=(1) trace\n");
    Costs total;
    for (uint64_t page = ~uint64_t{0}; const auto &[address, costs] : costs_) {
        if (address >> PAGE_BITS != page) {
            page = address >> PAGE_BITS;
            out.print("fn=page_{:x}\n", page << PAGE_BITS);
        }
        out.print("0x{:x} 0 ", address);
        put(costs);
        total.add(costs);
        out.settle();
        file_.check();
    }
    out.put("\ntotals: ");
    put(total);
}

} // namespace

std::unique_ptr<Exporter> make_callgrind_exporter(Output_File &file, const Export_Options &)
{
    return std::make_unique<Callgrind_Exporter>(file);
}

} // namespace qtrace_tool
