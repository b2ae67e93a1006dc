/* A host that happens to have the plugin's names: variables of other types and sizes, functions that must not be
 * called. They are exported, so a plugin that looks its own names up through the loader finds these. */
#include "clashing_names.h"

#include <stdlib.h>

#define VARIABLE(name) long name[CLASHING_WORDS];
CLASHING_VARIABLES(VARIABLE)

#define FUNCTION(name)                                                                                             \
    void name(void);                                                                                               \
    void name(void)                                                                                                \
    {                                                                                                              \
        abort();                                                                                                   \
    }
CLASHING_FUNCTIONS(FUNCTION)

static struct Clashing_Variable variables[] = {
#define ROW(name) {#name, name},
    CLASHING_VARIABLES(ROW)};

struct Clashing_Variable *clashing_variables(size_t *count)
{
    *count = sizeof variables / sizeof *variables;
    return variables;
}
