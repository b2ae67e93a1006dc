// A flat profile in the format of callgrind: what was executed and accessed at each address, by function or page.
#include "exporter.h"

#include "address_view.h"
#include "instruction_kinds.h"
#include "printable_text.h"

#include <map>
#include <string>
#include <tuple>
#include <unordered_map>

namespace qtrace_tool
{
namespace
{

using namespace trace;

const std::string NO_OBJECT = "trace"; // of instructions without a name

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

// An instruction address, and the symbol that it belongs to; the same address may belong to several processes.
struct Place {
    const Symbol *symbol; // null: none
    uint64_t address;
    uint64_t page() const { return address >> Translated_Address::PAGE_NUMBER_BITS; }
    bool operator<(const Place &other) const;
    bool operator==(const Place &other) const = default;
};

struct Place_Hash {
    size_t operator()(const Place &place) const { return place.address * 0x9E3779B97F4A7C15u >> 20; }
};

// Costs of a group of blocks.
class Callgrind_Part : public Export_Part
{
public:
    explicit Callgrind_Part(const Symbol_Names &names) : names_(names) {}
    void record(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) override;

    size_t size() const override { return costs.size() * (sizeof(Place) + sizeof(Costs) + 2 * sizeof(void *)); }

    std::unordered_map<Place, Costs, Place_Hash> costs;

private:
    Name_Finder names_;
};

void Callgrind_Part::record(const QTRACE_Item &item, const QTRACE_FILE_HDR *context)
{
    const uint32_t kinds = kinds_of(item.record, item.address);
    const uint64_t walks =
        uint64_t{has_walk(data_address_of(item.record))} + has_walk(next_address_of(item.record));
    Place place{nullptr, item.address};
    if (names_.any()) {
        names_.enter(context);
        place.symbol = names_.find(item.address);
    }
    costs[place].add({1, (kinds & QTRACE_KIND_LOAD) != 0, (kinds & QTRACE_KIND_STORE) != 0, walks});
}

class Callgrind_Exporter : public Exporter
{
public:
    Callgrind_Exporter(Output_File &file, const Export_Options &options) : file_(file), names_(*options.names) {}
    std::unique_ptr<Export_Part> make_part() const override { return std::make_unique<Callgrind_Part>(names_); }
    void add(Export_Part &part) override;
    void finish() override;

private:
    void put(const Costs &costs);
    void put_object(const std::string &object);
    void put_function(const Place &place);

    Output_File &file_;
    const Symbol_Names &names_;
    std::map<Place, Costs> costs_;
    std::string object_ = NO_OBJECT; // of the function that was put last
};

void Callgrind_Exporter::add(Export_Part &part)
{
    for (const auto &[place, costs] : static_cast<Callgrind_Part &>(part).costs)
        costs_[place].add(costs);
}

void Callgrind_Exporter::put(const Costs &costs)
{
    file_.out().print("{} {} {} {}\n", costs.instructions, costs.loads, costs.stores, costs.walks);
}

// By address; the same one in different processes by name.
bool Place::operator<(const Place &other) const
{
    if (address != other.address || symbol == other.symbol)
        return address < other.address;
    if (symbol == nullptr || other.symbol == nullptr)
        return symbol == nullptr;
    return std::tie(*symbol->file, symbol->name, symbol->first) <
           std::tie(*other.symbol->file, other.symbol->name, other.symbol->first);
}

// Functions of one name in different files are different functions. The file is no source, which readers would show.
void Callgrind_Exporter::put_object(const std::string &object)
{
    if (object == object_)
        return;
    object_ = object;
    file_.out().put("ob=");
    print_visible(file_.out(), object);
    file_.out().put('\n');
}

void Callgrind_Exporter::put_function(const Place &place)
{
    Output &out = file_.out();
    if (place.symbol == nullptr) {
        put_object(NO_OBJECT);
        return out.print("fn=page_{:x}\n", place.page() << Translated_Address::PAGE_NUMBER_BITS);
    }
    put_object(*place.symbol->file);
    out.put("fn=");
    print_visible(out, place.symbol->name);
    out.put('\n');
}

void Callgrind_Exporter::finish()
{
    Output &out = file_.out();
    out.put("# callgrind format\nversion: 1\ncreator: qtrace\n"
            "event: Ir : instructions\nevent: Dr : loads\nevent: Dw : stores\nevent: Twalk : table walks recorded\n"
            "positions: instr line\nevents: Ir Dr Dw Twalk\n\nfl=(1) trace\n");
    Costs total;
    for (const Place *last = nullptr; const auto &[place, costs] : costs_) {
        if (last == nullptr || place.symbol != last->symbol ||
            (place.symbol == nullptr && place.page() != last->page()))
            put_function(place);
        last = &place;
        out.print("0x{:x} 0 ", place.address);
        put(costs);
        total.add(costs);
        out.settle();
        file_.check();
    }
    out.put("\ntotals: ");
    put(total);
}

} // namespace

std::unique_ptr<Exporter> make_callgrind_exporter(Output_File &file, const Export_Options &options)
{
    return std::make_unique<Callgrind_Exporter>(file, options);
}

} // namespace qtrace_tool
