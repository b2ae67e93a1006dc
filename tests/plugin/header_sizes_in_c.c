#include "header_sizes.h"

#include "qtrace.h"

#include <string.h>

#define ROW(type, bytes) {#type, sizeof(type)},
static const struct Record_Size sizes[] = {RECORD_SIZES(ROW)};

const struct Record_Size *record_sizes_in_c(size_t *count)
{
    *count = sizeof sizes / sizeof *sizes;
    return sizes;
}

void set_bits_in_c(control_word *word, QTRACE_FILE_HDR_CNTRL *control)
{
    memset(word, 0, sizeof *word);
    memset(control, 0, sizeof *control);
    word->fld.host_xlate_mode_data = 2;
    word->fld.secondary_data_RPN_present = 1;
    word->fld.iar_change_present = 1;
    word->fld.register_trace_present = 1;
    control->magic_number_present = 1;
    control->comment_present = 1;
}
