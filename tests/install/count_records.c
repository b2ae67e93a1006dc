/* A reader in C: counts headers and records of a trace. Built against the installed tree by way of pkg-config. */
#include <qtrace.h>
#include <qtrace_reader.h>

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv)
{
    char *reason = NULL;
    QTRACE_Reader *reader = argc == 2 ? qtrace_open(argv[1], &reason) : NULL;
    if (reader == NULL) {
        fprintf(stderr, "%s\n", reason != NULL ? reason : "usage: count_records FILE");
        free(reason);
        return 1;
    }
    if (qtrace_api_version() != QTRACE_API_VERSION)
        return 1;
    unsigned long items[QTRACE_ITEM_ERROR + 1] = {0};
    const QTRACE_Item *item;
    QTRACE_ITEM kind;
    while ((kind = qtrace_next(reader, &item)) != QTRACE_ITEM_END && kind != QTRACE_ITEM_ERROR)
        items[kind]++;
    qtrace_close(reader);
    printf("%lu headers, %lu records, %lu discontinuities\n", items[QTRACE_ITEM_HEADER], items[QTRACE_ITEM_RECORD],
           items[QTRACE_ITEM_DISCONTINUITY]);
    return kind != QTRACE_ITEM_END;
}
