/*
 * Mappings of files that others may cut short. A look at what is gone is answered by the system with SIGBUS;
 * the handler here puts zeros in the place and marks the mapping, so that its reader finds out instead of
 * dying.
 */
#define _GNU_SOURCE /* MAP_ANONYMOUS */

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include "shb_reader.h"

/* Nodes are used again, never freed: the handler may be walking along them at any time. */
typedef struct region {
    struct region *next;
    SHB_ATOMIC(uintptr_t) begin; /* 0: not in use */
    SHB_ATOMIC(uintptr_t) end;
    SHB_ATOMIC(SHB_ATOMIC(bool) *) damaged;
} region_t;

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static SHB_ATOMIC(region_t *) regions;
static bool on;
static uintptr_t page;
static struct sigaction before;

void shb_guard_lock(void) {
    pthread_mutex_lock(&lock);
}

void shb_guard_unlock(void) {
    pthread_mutex_unlock(&lock);
}

static bool cover(uintptr_t address) {
    for (region_t *at = atomic_load_explicit(&regions, memory_order_acquire); at != NULL; at = at->next) {
        uintptr_t begin = atomic_load_explicit(&at->begin, memory_order_acquire);
        uintptr_t end = atomic_load_explicit(&at->end, memory_order_acquire);
        if (begin == 0 || address < begin || address >= end)
            continue;
        uintptr_t from = address & ~(page - 1);
        /* Everything behind it is gone as well. */
        if (mmap((void *)from, end - from, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) ==
            MAP_FAILED)
            return false;
        atomic_store_explicit(atomic_load_explicit(&at->damaged, memory_order_acquire), true, memory_order_release);
        return true;
    }
    return false;
}

static void handle(int number, siginfo_t *info, void *context) {
    int saved = errno;
    bool covered = info->si_code > 0 && cover((uintptr_t)info->si_addr);
    errno = saved;
    if (covered)
        return;
    if ((before.sa_flags & SA_SIGINFO) != 0) {
        before.sa_sigaction(number, info, context);
    } else if (before.sa_handler != SIG_DFL && before.sa_handler != SIG_IGN) {
        before.sa_handler(number);
    } else {
        /* The access that is tried again now ends the process, as it would have without us. */
        signal(SIGBUS, SIG_DFL);
        if (info->si_code <= 0)
            raise(SIGBUS);
    }
}

int shb_guard(int wanted) {
    int result = SHB_OK;
    pthread_mutex_lock(&lock);
    page = (uintptr_t)sysconf(_SC_PAGESIZE);
    if (wanted != 0 && !on) {
        struct sigaction action = {.sa_sigaction = handle, .sa_flags = SA_SIGINFO | SA_ONSTACK};
        sigemptyset(&action.sa_mask);
        if (sigaction(SIGBUS, &action, &before) != 0)
            result = SHB_ERR_SYSTEM;
        else
            on = true;
    } else if (wanted == 0 && on) {
        if (sigaction(SIGBUS, &before, NULL) != 0)
            result = SHB_ERR_SYSTEM;
        else
            on = false;
    }
    pthread_mutex_unlock(&lock);
    return result;
}

void *shb_guard_add(void *base, size_t bytes, SHB_ATOMIC(bool) * damaged) {
    pthread_mutex_lock(&lock);
    region_t *at = atomic_load_explicit(&regions, memory_order_relaxed);
    while (at != NULL && atomic_load_explicit(&at->begin, memory_order_relaxed) != 0)
        at = at->next;
    if (at == NULL) {
        at = calloc(1, sizeof *at);
        if (at != NULL) {
            at->next = atomic_load_explicit(&regions, memory_order_relaxed);
            atomic_store_explicit(&regions, at, memory_order_release);
        }
    }
    if (at != NULL) {
        atomic_store_explicit(&at->damaged, damaged, memory_order_release);
        atomic_store_explicit(&at->end, (uintptr_t)base + bytes, memory_order_release);
        atomic_store_explicit(&at->begin, (uintptr_t)base, memory_order_release);
    }
    pthread_mutex_unlock(&lock);
    return at;
}

void shb_guard_remove(void *guarded) {
    region_t *region = guarded;
    if (region == NULL)
        return;
    pthread_mutex_lock(&lock);
    atomic_store_explicit(&region->begin, 0, memory_order_release);
    pthread_mutex_unlock(&lock);
}
