// Whether registers hold what was last seen in them.
#pragma once

#include "qtrace_reader.h"
#include "record_schema.h"

#include <array>
#include <cstdint>
#include <functional>
#include <string>

namespace qtrace_tool
{

class Register_Flow
{
public:
    // Called with the registers of a record that hold something else than before, as a text.
    using Report = std::function<void(const std::string &what)>;

    // Compares what the record reads with what was last seen, and takes over what it reads and writes.
    void record(const QTRACE_Item &item, const Report &report);
    // Values may have changed since the last record.
    void forget();
    uint64_t checks() const { return checks_; } // values that were compared

private:
    // As REGISTER_CLASSES name them: special, vector-scalar, vector, floating-point and general registers.
    enum File : uint8_t { SPECIAL, VECTOR_SCALAR, VECTOR, FLOATING, GENERAL, FILES };
    struct Value {
        uint64_t words[2] = {};
        uint64_t record = 0; // in which it was seen
        bool known = false;
    };
    static constexpr size_t MOST = 64; // registers of a file
    using Values = std::array<Value, MOST>;
    static File file_of(size_t register_class);
    static size_t slot_of(File file, unsigned index);
    void read(File file, const trace::Register_Class &kind, const QTRACE_Item &item, const Report &report);
    void write(File file, const trace::Register_Class &kind, const QTRACE_Item &item);
    void forget_twin(File file, size_t slot);
    static void forget(Values &values);
    void compare(Value &seen, const trace::Register_Class &kind, const trace::Register_Entry &entry,
                 uint64_t record, const Report &report);

    std::array<Values, FILES> values_;
    uint64_t checks_ = 0;
};

// Whether the instruction goes where its word and its registers say, or to an interrupt vector that the trace goes on
// at. Otherwise instructions that are not traced may have run.
bool goes_on_visibly(const QTRACE_Item &item);

} // namespace qtrace_tool
