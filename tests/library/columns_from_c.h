/* The columns as a program in C uses them. */
#ifndef COLUMNS_FROM_C_H
#define COLUMNS_FROM_C_H

#include <stdint.h>

#ifdef __cplusplus
extern "C"
#endif
    uint64_t
    sum_of_words(const char *name);

#endif
