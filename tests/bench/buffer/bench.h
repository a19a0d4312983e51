/*
 * What the programs of the buffer benchmark have in common.
 */
#ifndef BENCH_H
#define BENCH_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* CLOCK_MONOTONIC, which is the same for all processes. */
uint64_t bench_now_ns(void);
void bench_sleep_until_ns(uint64_t when);

/* A size or count from the command line; ends the program when it is none. */
size_t bench_number(const char *text);

/* Memory on a page boundary with the same bytes for the same seed; ends the program when there is none. */
unsigned char *bench_pattern(size_t size, uint64_t seed);

/* "gst-source-bench-PID": the script removes what is left under that name when the program was killed. */
void bench_name(char out[64]);

/* Ends the program because of its arguments. */
__attribute__((noreturn)) void bench_usage(const char *arguments);

/* Ends the program with a message, and the errno where it tells something. */
__attribute__((noreturn)) void bench_fail(const char *what);

#ifdef __cplusplus
}
#endif

#endif /* BENCH_H */
