/*
 * Sleeping on words of shared memory and waking who sleeps there.
 */
#define _GNU_SOURCE /* syscall */

#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "shb_internal.h"

#define NS_PER_S UINT64_C(1000000000)

/* The kernel's, which the headers of older systems do not have. */
#ifndef SYS_futex_waitv
#define SYS_futex_waitv 449
#endif
#define WAITV_SIZE_U32 2u

typedef struct waitv {
    uint64_t value;
    uint64_t address;
    uint32_t flags;
    uint32_t reserved;
} waitv_t;

static struct timespec timespec_of(uint64_t ns) {
    const struct timespec result = {.tv_sec = (time_t)(ns / NS_PER_S), .tv_nsec = (long)(ns % NS_PER_S)};
    return result;
}

void shb_wait(SHB_ATOMIC(uint32_t) * word, uint32_t seen, uint64_t timeout_ns) {
    const struct timespec timeout = timespec_of(timeout_ns);
    syscall(SYS_futex, word, FUTEX_WAIT, seen, &timeout, NULL, 0);
}

bool shb_wait_many(SHB_ATOMIC(uint32_t) *const *words, const uint32_t *seen, size_t count, uint64_t timeout_ns) {
    waitv_t list[SHB_WAIT_MANY_MAX];
    for (size_t i = 0; i < count; i++) {
        const waitv_t one = {.value = seen[i], .address = (uint64_t)(uintptr_t)words[i], .flags = WAITV_SIZE_U32};
        list[i] = one;
    }
    const struct timespec until = timespec_of(shb_now_ns() + timeout_ns);
    return syscall(SYS_futex_waitv, list, (unsigned)count, 0u, &until, CLOCK_MONOTONIC) >= 0 || errno == EAGAIN ||
           errno == ETIMEDOUT || errno == EINTR;
}

void shb_wake(SHB_ATOMIC(uint32_t) * word) {
    atomic_fetch_add_explicit(word, 1, memory_order_release);
    syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, NULL, NULL, 0);
}

void shb_announce(shb_waiters_t *waiters) {
    if (atomic_load_explicit(&waiters->waiting, memory_order_seq_cst) == 0)
        atomic_store_explicit(&waiters->waiting, 1, memory_order_seq_cst);
}

/*
 * The word changes before the announcement is looked at, and a waiter announces itself before the kernel
 * compares the word: one of the two sees the other. The announcement is taken back before the word changes once
 * more, so that a waiter whose announcement was taken finds the word changed if it is not yet asleep.
 */
void shb_wake_waiting(shb_waiters_t *waiters) {
    atomic_fetch_add_explicit(&waiters->wake, 1, memory_order_seq_cst);
    if (atomic_load_explicit(&waiters->waiting, memory_order_seq_cst) == 0)
        return;
    atomic_store_explicit(&waiters->waiting, 0, memory_order_seq_cst);
    shb_wake(&waiters->wake);
}
