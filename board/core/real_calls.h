// The C library's own functions, which the board's definitions hide. Looked up at the first use.
#pragma once

#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

namespace quil::board {

// clang-format off
#define QUIL_REAL_CALLS(CALL) \
    CALL(int, open, (const char*, int, ...)) \
    CALL(int, open64, (const char*, int, ...)) \
    CALL(ssize_t, read, (int, void*, size_t)) \
    CALL(ssize_t, write, (int, const void*, size_t)) \
    CALL(ssize_t, writev, (int, const iovec*, int)) \
    CALL(int, dup, (int)) \
    CALL(int, close, (int)) \
    CALL(int, select, (int, fd_set*, fd_set*, fd_set*, timeval*)) \
    CALL(int, poll, (pollfd*, nfds_t, int)) \
    CALL(int, fcntl, (int, int, ...)) \
    CALL(int, fcntl64, (int, int, ...)) \
    CALL(int, tcgetattr, (int, termios*)) \
    CALL(int, tcsetattr, (int, int, const termios*)) \
    CALL(int, tcflush, (int, int)) \
    CALL(int, access, (const char*, int)) \
    CALL(int, stat, (const char*, struct stat*)) \
    CALL(int, stat64, (const char*, struct stat64*)) \
    CALL(FILE*, fopen, (const char*, const char*)) \
    CALL(FILE*, fopen64, (const char*, const char*)) \
    CALL(int, remove, (const char*)) \
    CALL(int, system, (const char*)) \
    CALL(int, usleep, (useconds_t)) \
    CALL(unsigned, sleep, (unsigned)) \
    CALL(int, nanosleep, (const timespec*, timespec*)) \
    CALL(int, clock_nanosleep, (clockid_t, int, const timespec*, timespec*)) \
    CALL(int, gettimeofday, (timeval*, void*)) \
    CALL(int, clock_gettime, (clockid_t, timespec*)) \
    CALL(int, sched_yield, ()) \
    CALL(int, pthread_mutex_lock, (pthread_mutex_t*)) \
    CALL(int, pthread_mutex_trylock, (pthread_mutex_t*)) \
    CALL(int, pthread_mutex_unlock, (pthread_mutex_t*)) \
    CALL(int, pthread_cond_wait, (pthread_cond_t*, pthread_mutex_t*)) \
    CALL(int, pthread_cond_timedwait, (pthread_cond_t*, pthread_mutex_t*, const timespec*)) \
    CALL(int, pthread_cond_clockwait, \
         (pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)) \
    CALL(int, pthread_cond_signal, (pthread_cond_t*)) \
    CALL(int, pthread_cond_broadcast, (pthread_cond_t*)) \
    CALL(int, pthread_create, \
         (pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)) \
    CALL(int, pthread_join, (pthread_t, void**))
// clang-format on

struct RealCalls {
// NOLINTNEXTLINE(bugprone-macro-parentheses): the arguments are types
#define QUIL_REAL_MEMBER(result, name, arguments) result(*name) arguments = nullptr;
    QUIL_REAL_CALLS(QUIL_REAL_MEMBER)
#undef QUIL_REAL_MEMBER
    int (*logWrite)(int priority, const char* tag, const char* text) = nullptr;
};

const RealCalls& real();
bool resolved();
int64_t realNanos();  // the workstation's monotonic clock
timespec timespecOf(int64_t nanos);

}  // namespace quil::board
