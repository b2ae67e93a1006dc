/* The four operations of a trace writer library. Usable from C11 and C++20. */
#ifndef QTRACE_H
#define QTRACE_H

#include "qtrace_t.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Opens (for QTRACE_WRITE: creates or empties) the trace file `name`. Returns its descriptor, to be closed with
 * QTRACE_Fclose, or -1. */
QTRACE_FDESCR QTRACE_Fopen(const char *name, QTRACE_FILE_MODE mode);

/* Writes out what is pending and closes. A descriptor that is not open is ignored. */
void QTRACE_Fclose(QTRACE_FDESCR file);

/* Appends a file header or a record. Returns 0, or anything else on failure. The structure is only read during
 * the call and may be gone afterwards; what the library wants to keep it copies. */
int QTRACE_FwriteFileHeader(QTRACE_FDESCR file, QTRACE_FILE_HDR *header);
int QTRACE_FwriteRecord(QTRACE_FDESCR file, QTRACE_RECORD *record);

#ifdef __cplusplus
}
#endif

#endif
