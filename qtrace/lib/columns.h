// What qtrace_columns.h stands on: numbers of translations without a search per record.
#pragma once

#include "predictor.h"
#include "qtrace_columns.h"
#include "trace_codec.h"
#include "translation_table.h"

namespace trace
{

// The decoder of a reader, which must be at the record that the reader delivered last.
Decoder &decoder_of(QTRACE_Reader &reader);

// The numbers of a decoder's translations in a table. A translation is searched for only when its page changes.
class Translation_Numbers
{
public:
    // Of an address that the record has.
    uint32_t number(Translation_Table &table, const Decoder &decoder, const QTRACE_RECORD &record,
                    Address_Side side);
    void forget() { known_.clear(); }

private:
    struct Known {
        uint64_t version, flags;
        uint32_t row;
    };
    static uint32_t search(Translation_Table &table, const Decoder &decoder, const QTRACE_RECORD &record,
                           Address_Side side);

    std::vector<Known> known_; // by side and slot of the predictor's pages
};

} // namespace trace
