/* What takes long on a large trace, done by several threads. Results do not depend on how many there are. */
#ifndef QTRACE_JOBS_H
#define QTRACE_JOBS_H

#include "qtrace_reader.h"

#ifdef __cplusplus
extern "C" {
#endif

/* As qtrace_verify. `threads`: at least 1, the calling one included; each takes 2 MiB. */
int qtrace_verify_by(QTRACE_Reader *reader, unsigned threads, QTRACE_Info *info);

/* As qtrace_recover. `threads` decode the blocks; one copies them. */
int qtrace_recover_by(const char *from, const char *to, unsigned threads, QTRACE_Recovery *result, char **error);

/* As qtrace_cut. `threads` decode the blocks that are kept as a whole, first; then the calling one copies them, and calls
 * the choice's functions. */
int qtrace_cut_by(const char *from, const QTRACE_Cut *what, unsigned threads, QTRACE_Cut_Result *result,
                  char **error);

#ifdef __cplusplus
}
#endif

#endif
