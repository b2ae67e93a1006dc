// Members of a record that its common sections leave out: whether one of them is set, and which.
#pragma once

#include "qtrace_t.h"

namespace trace
{

// Whether the record carries anything beside its common sections: members that are never common, an address with
// its translation whose flag is clear, register entries beyond their counts. Every record is asked this.
bool has_uncommon(const QTRACE_RECORD &record);

// Copies just these members to `to`, which is all zero.
void copy_uncommon(const QTRACE_RECORD &record, QTRACE_RECORD &to);

} // namespace trace
