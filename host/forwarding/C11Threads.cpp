// The thread sanitizer does not intercept C11 threads, which librdkafka uses. This file implements
// them with pthreads, for sanitizer builds only. In glibc both have the same types.
#include <pthread.h>
#include <threads.h>

#include <cerrno>
#include <cstdint>
#include <memory>

namespace {

struct Start {
    thrd_start_t function;
    void* argument;
};

void* run(void* start) {
    const std::unique_ptr<Start> owned(static_cast<Start*>(start));
    return reinterpret_cast<void*>(static_cast<std::intptr_t>(owned->function(owned->argument)));
}

int toResult(int error) {
    switch (error) {
    case 0:
        return thrd_success;
    case ETIMEDOUT:
        return thrd_timedout;
    case EBUSY:
        return thrd_busy;
    default:
        return thrd_error;
    }
}

pthread_mutex_t* posix(mtx_t* mutex) {
    return reinterpret_cast<pthread_mutex_t*>(mutex);
}
pthread_cond_t* posix(cnd_t* condition) {
    return reinterpret_cast<pthread_cond_t*>(condition);
}

} // namespace

#pragma GCC visibility push(default) // librdkafka is to find them
extern "C" {

int thrd_create(thrd_t* thread, thrd_start_t function, void* argument) {
    auto start = std::make_unique<Start>(Start{function, argument});
    const int error = pthread_create(thread, nullptr, run, start.get());
    if (error == 0) {
        static_cast<void>(start.release()); // the thread's
    }
    return toResult(error);
}
int thrd_join(thrd_t thread, int* result) {
    void* ended = nullptr;
    const int error = pthread_join(thread, &ended);
    if (result != nullptr) {
        *result = static_cast<int>(reinterpret_cast<std::intptr_t>(ended));
    }
    return toResult(error);
}
int thrd_detach(thrd_t thread) {
    return toResult(pthread_detach(thread));
}

int mtx_init(mtx_t* mutex, int type) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, (type & mtx_recursive) != 0 ? PTHREAD_MUTEX_RECURSIVE
                                                                       : PTHREAD_MUTEX_NORMAL);
    const int error = pthread_mutex_init(posix(mutex), &attributes);
    pthread_mutexattr_destroy(&attributes);
    return toResult(error);
}
int mtx_lock(mtx_t* mutex) {
    return toResult(pthread_mutex_lock(posix(mutex)));
}
int mtx_trylock(mtx_t* mutex) {
    return toResult(pthread_mutex_trylock(posix(mutex)));
}
int mtx_unlock(mtx_t* mutex) {
    return toResult(pthread_mutex_unlock(posix(mutex)));
}
void mtx_destroy(mtx_t* mutex) {
    pthread_mutex_destroy(posix(mutex));
}

int cnd_init(cnd_t* condition) {
    return toResult(pthread_cond_init(posix(condition), nullptr));
}
int cnd_wait(cnd_t* condition, mtx_t* mutex) {
    return toResult(pthread_cond_wait(posix(condition), posix(mutex)));
}
int cnd_timedwait(cnd_t* condition, mtx_t* mutex, const timespec* end) {
    return toResult(pthread_cond_timedwait(posix(condition), posix(mutex), end));
}
int cnd_signal(cnd_t* condition) {
    return toResult(pthread_cond_signal(posix(condition)));
}
int cnd_broadcast(cnd_t* condition) {
    return toResult(pthread_cond_broadcast(posix(condition)));
}
void cnd_destroy(cnd_t* condition) {
    pthread_cond_destroy(posix(condition));
}

} // extern "C"
#pragma GCC visibility pop
