#include "columns_from_c.h"

#include "qtrace_columns.h"

/* The sum of all instruction words of a trace, in batches of 64; 0 when it cannot be read. */
uint64_t sum_of_words(const char *name)
{
    uint32_t words[64];
    uint64_t sum = 0;
    QTRACE_Columns columns = {.which = QTRACE_COLUMN_WORD, .word = words};
    QTRACE_Reader *reader = qtrace_open(name, NULL);
    QTRACE_ITEM kind = QTRACE_ITEM_RECORD;
    while (reader != NULL && kind != QTRACE_ITEM_END && kind != QTRACE_ITEM_ERROR) {
        kind = qtrace_read_columns(reader, 64, &columns, NULL);
        for (uint64_t i = 0; i < columns.rows; i++)
            sum += words[i];
    }
    qtrace_close(reader);
    return sum;
}
