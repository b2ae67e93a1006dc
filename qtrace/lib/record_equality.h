// Whether two records are the same.
#pragma once

#include "qtrace_t.h"

namespace trace
{

// Everything that a writer fills or may fill, padding included; the library's bookkeeping aside.
bool have_same_members(const QTRACE_RECORD &a, const QTRACE_RECORD &b);

} // namespace trace
