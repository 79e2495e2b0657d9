// Holds up, now and then, the calls by which the threads of a program meet one another and the
// world: each delay moves the program on against everything around it.
//
// The environment variable VOLDRAKE_DELAYS says what is done, in five words:
//
//   PROGRAM   only a program of this name is held up, not those that it starts
//   SEED      a number; with the same seed the same calls of a kind (the 3rd "send") are held up
//   RARITY    one call of so many is held up; of the calls that come by the thousand fewer
//   LONGEST   the longest delay in microseconds; most are far shorter. 0: no delay, but every call
//             gives way to the other threads first, and to whatever else the processor has to do
//   TOTAL     so many microseconds are spent on delays and on giving way; then there are no more

// A 32-bit program may use either form of these calls, so the headers must not rename them.
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

/// The calls that come by the thousand are held up more rarely by this factor.
enum { kOften = 16 };

typedef struct {
  const char* name;
  unsigned rarer;
  atomic_uint_fast64_t count;
  void* _Atomic next;
} tCall;

static bool active;
static uint64_t seed;
static uint64_t rarity;
static uint64_t longest;
static atomic_int_fast64_t left;

__attribute__((constructor)) static void ReadEnvironment(void) {
  const char* text = getenv("VOLDRAKE_DELAYS");
  char program[64] = "";
  int64_t total = 0;
  if (text == NULL || sscanf(text, "%63s %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNd64, program,
                             &seed, &rarity, &longest, &total) != 5) {
    return;
  }
  atomic_store(&left, total);
  active = rarity > 0 && strcmp(program, program_invocation_short_name) == 0;
}

/// splitmix64: every bit of the result depends on every bit of the value.
static uint64_t Mixed(uint64_t value) {
  value += 0x9e3779b97f4a7c15u;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9u;
  value = (value ^ (value >> 27)) * 0x94d049bb133111ebu;
  return value ^ (value >> 31);
}

/// The delay in microseconds of a call of this name, the `count`th; 0 for most.
static uint64_t Delay(const char* name, uint64_t count, uint64_t oneOf) {
  uint64_t chance = seed;
  for (; *name != '\0'; ++name) chance = Mixed(chance ^ (unsigned char)*name);
  chance = Mixed(chance ^ count);
  if (chance % oneOf != 0) return 0;
  const double part = (double)(Mixed(chance) >> 11) / (double)(UINT64_C(1) << 53);
  return (uint64_t)(part * part * part * (double)longest);
}

/// Asked of the kernel: another preloaded library may let the program's clock run fast.
static int64_t NowInMicroseconds(void) {
  struct timespec now = {0, 0};
  syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

static void GiveWay(void) {
  if (atomic_load(&left) <= 0) return;
  const int64_t begun = NowInMicroseconds();
  sched_yield();
  atomic_fetch_sub(&left, NowInMicroseconds() - begun);
}

static void HoldUp(tCall* call) {
  if (!active) return;
  if (longest == 0) {
    GiveWay();
    return;
  }
  const uint64_t delay = Delay(call->name, atomic_fetch_add(&call->count, 1), rarity * call->rarer);
  if (delay == 0 || atomic_fetch_sub(&left, (int64_t)delay) < (int64_t)delay) return;
  const int error = errno;
  const struct timespec duration = {(time_t)(delay / 1000000), (long)(delay % 1000000) * 1000};
  nanosleep(&duration, NULL);
  errno = error;
}

/// The program's own function of this name, after the delay.
static void* Next(tCall* call) {
  void* next = atomic_load(&call->next);
  if (next == NULL) {
    next = dlsym(RTLD_NEXT, call->name);
    atomic_store(&call->next, next);
  }
  HoldUp(call);
  return next;
}

#define DELAYED(rarer, result, name, parameters, arguments) \
  result name parameters {                                  \
    static tCall call = {#name, rarer, 0, NULL};            \
    return ((result(*) parameters)Next(&call))arguments;    \
  }

DELAYED(1, int, connect, (int a, const struct sockaddr* b, socklen_t c), (a, b, c))
DELAYED(1, int, bind, (int a, const struct sockaddr* b, socklen_t c), (a, b, c))
DELAYED(1, int, accept, (int a, struct sockaddr* b, socklen_t* c), (a, b, c))
DELAYED(1, int, accept4, (int a, struct sockaddr* b, socklen_t* c, int d), (a, b, c, d))
DELAYED(1, ssize_t, send, (int a, const void* b, size_t c, int d), (a, b, c, d))
DELAYED(1, ssize_t, sendto,
        (int a, const void* b, size_t c, int d, const struct sockaddr* e, socklen_t f),
        (a, b, c, d, e, f))
DELAYED(1, ssize_t, sendmsg, (int a, const struct msghdr* b, int c), (a, b, c))
DELAYED(1, ssize_t, recv, (int a, void* b, size_t c, int d), (a, b, c, d))
DELAYED(1, ssize_t, recvfrom, (int a, void* b, size_t c, int d, struct sockaddr* e, socklen_t* f),
        (a, b, c, d, e, f))
DELAYED(1, ssize_t, recvmsg, (int a, struct msghdr* b, int c), (a, b, c))
DELAYED(1, ssize_t, read, (int a, void* b, size_t c), (a, b, c))
DELAYED(1, ssize_t, write, (int a, const void* b, size_t c), (a, b, c))
DELAYED(1, int, close, (int a), (a))
DELAYED(1, int, rename, (const char* a, const char* b), (a, b))
DELAYED(1, int, symlink, (const char* a, const char* b), (a, b))
DELAYED(1, int, unlink, (const char* a), (a))
DELAYED(1, int, mkdir, (const char* a, mode_t b), (a, b))
DELAYED(1, int, rmdir, (const char* a), (a))
DELAYED(1, DIR*, opendir, (const char* a), (a))
DELAYED(1, int, system, (const char* a), (a))
DELAYED(1, int, poll, (struct pollfd * a, nfds_t b, int c), (a, b, c))
DELAYED(1, int, pthread_create,
        (pthread_t * a, const pthread_attr_t* b, void* (*c)(void*), void* d), (a, b, c, d))
DELAYED(1, int, pthread_join, (pthread_t a, void** b), (a, b))
DELAYED(kOften, int, pthread_mutex_lock, (pthread_mutex_t * a), (a))
DELAYED(kOften, int, pthread_mutex_unlock, (pthread_mutex_t * a), (a))
DELAYED(1, int, pthread_cond_signal, (pthread_cond_t * a), (a))
DELAYED(1, int, pthread_cond_timedwait,
        (pthread_cond_t * a, pthread_mutex_t* b, const struct timespec* c), (a, b, c))

typedef int tOpen(const char*, int, ...);

static mode_t ModeOf(int flags, va_list arguments) {
  const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
  return creates ? va_arg(arguments, mode_t) : 0;
}

int open(const char* path, int flags, ...) {
  static tCall call = {"open", 1, 0, NULL};
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = ModeOf(flags, arguments);
  va_end(arguments);
  return ((tOpen*)Next(&call))(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  static tCall call = {"open64", 1, 0, NULL};
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = ModeOf(flags, arguments);
  va_end(arguments);
  return ((tOpen*)Next(&call))(path, flags, mode);
}
