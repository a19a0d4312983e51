// Shows the thread sanitizer the locks, conditions, thread pools, calls into main contexts and last
// references of GLib, which are not built for it: without them it takes what they order for races. Calls from
// GStreamer, its plug-ins and this project's own code come through here; those inside GLib do not.
#include <dlfcn.h>
#include <glib-object.h>
#include <gst/gst.h>
#include <sanitizer/tsan_interface.h>

namespace {

template <typename Function>
Function Real(const char *name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// What is given to a pool is seen by the thread that takes it out.
struct Pool {
    GFunc function;
    gpointer user;
};

void RunInPool(gpointer data, gpointer pool) {
    __tsan_acquire(pool);
    const auto *own = static_cast<Pool *>(pool);
    own->function(data, own->user);
}

// The same of a main context.
struct Call {
    GSourceFunc function;
    gpointer data;
    GDestroyNotify forget;
};

gboolean RunInContext(gpointer call) {
    __tsan_acquire(call);
    const auto *own = static_cast<Call *>(call);
    return own->function(own->data);
}

void ForgetCall(gpointer call) {
    __tsan_acquire(call);
    const auto *own = static_cast<Call *>(call);
    if (own->forget != nullptr) {
        own->forget(own->data);
    }
    delete own;
}

}  // namespace

#define REAL(name) static const auto real = Real<decltype(&(name))>(#name)
#define TAKES(name, Lock)     \
    void name(Lock *lock) {   \
        REAL(name);           \
        real(lock);           \
        __tsan_acquire(lock); \
    }
// One that fails learns more than it may, which hides a race at worst.
#define TRIES(name, Lock)                   \
    gboolean name(Lock *lock) {             \
        REAL(name);                         \
        const gboolean locked = real(lock); \
        __tsan_acquire(lock);               \
        return locked;                      \
    }
#define GIVES(name, Lock)     \
    void name(Lock *lock) {   \
        REAL(name);           \
        __tsan_release(lock); \
        real(lock);           \
    }
// Whoever drops the last reference sees what all others have done before.
#define DROPS(name, Object)     \
    void name(Object *object) { \
        REAL(name);             \
        __tsan_release(object); \
        __tsan_acquire(object); \
        real(object);           \
    }

extern "C" {

TAKES(g_mutex_lock, GMutex)
TRIES(g_mutex_trylock, GMutex)
GIVES(g_mutex_unlock, GMutex)
TAKES(g_rec_mutex_lock, GRecMutex)
TRIES(g_rec_mutex_trylock, GRecMutex)
GIVES(g_rec_mutex_unlock, GRecMutex)
TAKES(g_rw_lock_writer_lock, GRWLock)
TRIES(g_rw_lock_writer_trylock, GRWLock)
GIVES(g_rw_lock_writer_unlock, GRWLock)
TAKES(g_rw_lock_reader_lock, GRWLock)
TRIES(g_rw_lock_reader_trylock, GRWLock)
GIVES(g_rw_lock_reader_unlock, GRWLock)
DROPS(g_object_unref, void)
DROPS(gst_mini_object_unref, GstMiniObject)

void g_cond_wait(GCond *cond, GMutex *mutex) {
    REAL(g_cond_wait);
    __tsan_release(mutex);
    real(cond, mutex);
    __tsan_acquire(mutex);
}

gboolean g_cond_wait_until(GCond *cond, GMutex *mutex, gint64 end) {
    REAL(g_cond_wait_until);
    __tsan_release(mutex);
    const gboolean signalled = real(cond, mutex, end);
    __tsan_acquire(mutex);
    return signalled;
}

GThreadPool *g_thread_pool_new(GFunc function, gpointer user, gint threads, gboolean exclusive, GError **error) {
    REAL(g_thread_pool_new);
    return real(RunInPool, new Pool{function, user}, threads, exclusive, error);
}

gboolean g_thread_pool_push(GThreadPool *pool, gpointer data, GError **error) {
    REAL(g_thread_pool_push);
    __tsan_release(pool->user_data);
    return real(pool, data, error);
}

void g_main_context_invoke_full(GMainContext *context, gint priority, GSourceFunc function, gpointer data,
                                GDestroyNotify forget) {
    REAL(g_main_context_invoke_full);
    auto *const call = new Call{function, data, forget};
    __tsan_release(call);
    real(context, priority, RunInContext, call, ForgetCall);
}

}  // extern "C"
