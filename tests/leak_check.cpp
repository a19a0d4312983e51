// Keeps the leak check from taking what living threads keep for themselves for leaks. The address sanitizer
// of these compilers never learns that a thread has been joined, and finds threads by the number that the
// kernel gave them. Once the kernel has gone through all its numbers, which a test that builds thousands of
// pipelines makes it do, a new thread is taken for the ended one that had its number before, its stack and
// thread-private data are not searched, and GLib's private data of that thread appear to be lost. So what is
// made thread-private counts as in use for as long as it lives.
#include <pthread.h>
#include <sanitizer/lsan_interface.h>

// The name by which the C library's own one can still be called; looking it up would need memory, which the
// sanitizer has not got yet when it sets its first value.
#if defined(__x86_64__)
__asm__(".symver LibrarySetSpecific, __pthread_setspecific@GLIBC_2.2.5");
#else
#error "the version of __pthread_setspecific on this machine"
#endif
extern "C" int LibrarySetSpecific(pthread_key_t key, const void *value);

// Not instrumented: it runs before the sanitizer is ready.
extern "C" __attribute__((visibility("default"), no_sanitize("address", "undefined"))) int pthread_setspecific(
    pthread_key_t key, const void *value) noexcept {
    if (value != nullptr) {
        __lsan_ignore_object(value);
    }
    return LibrarySetSpecific(key, value);
}
