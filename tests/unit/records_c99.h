/* What a host written in C99 sees of the two records. */
#ifndef RECORDS_C99_H
#define RECORDS_C99_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct record_offset {
    const char *field;
    size_t offset;
    size_t size;
};

/* Ends with a null field; its size is that of the record. */
const struct record_offset *c99_media_code_info(void);
const struct record_offset *c99_source_status(void);
/* Number of functions that the header declares with the expected types. */
int c99_functions(void);
/* Fills a record by its C names. */
void c99_fill_video(void *media_code_info);

#ifdef __cplusplus
}
#endif

#endif
