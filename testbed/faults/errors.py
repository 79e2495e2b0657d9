"""How system calls can fail on a unit that is short of memory, descriptors, space or processes,
whose network is away or whose files cannot be had.

The errors are those that the manual pages name, but for the ones that only a wrong argument brings
about: the daemon's arguments are not made here.
"""

import re
from dataclasses import dataclass


@dataclass(frozen=True)
class Rule:
    """The errors of these calls, where the call's text has the pattern."""

    calls: frozenset[str]
    pattern: str
    errors: tuple[str, ...]


def _rule(calls: str, errors: str, pattern: str = "") -> Rule:
    return Rule(frozenset(calls.split()), pattern, tuple(errors.split()))


#: What a descriptor is, as strace -y has it.
_SOCKET = r"^\w+\(\d+<(socket|UNIX|TCP|UDP|NETLINK)"
_WAKEUP = r"^\w+\(\d+<(anon_inode|pipe)"

#: The first that fits counts.
RULES = (
    _rule("open openat", "EMFILE EACCES ENOMEM ENOSPC", r"O_CREAT"),
    _rule("open openat", "EMFILE EACCES ENOMEM"),
    _rule("openat2", "EMFILE EACCES ENOSYS"),
    _rule("read pread64 readv", "EINTR", _WAKEUP),
    _rule("read readv", "EINTR ENOMEM", _SOCKET),
    _rule("read pread64 readv", "EIO EINTR"),
    _rule("write writev", "EINTR", _WAKEUP),
    _rule("write writev", "EPIPE ENOBUFS EINTR", _SOCKET),
    _rule("write pwrite64 writev", "ENOSPC EIO EINTR"),
    _rule("fsync fdatasync", "EIO ENOSPC"),
    _rule("sendto", "ENOBUFS ENETUNREACH EPERM EINTR", r"sa_family=AF_INET"),
    _rule("sendto sendmsg", "EPIPE ENOBUFS ENOMEM EINTR"),
    _rule("recvfrom recvmsg", "ENOMEM EINTR"),
    _rule("socket socketpair accept4 accept", "EMFILE ENOBUFS"),
    # No EINTR: an interrupted connect goes on by itself, and one whose call was replaced does not.
    _rule("connect", "ECONNREFUSED ENETUNREACH ETIMEDOUT EADDRNOTAVAIL", r"AF_INET"),
    _rule("connect", "ECONNREFUSED EAGAIN ENOENT"),
    _rule("bind", "EADDRINUSE EADDRNOTAVAIL"),
    _rule("listen", "EADDRINUSE"),
    _rule("setsockopt", "ENODEV ENOBUFS", r"IP_ADD_MEMBERSHIP"),
    _rule("setsockopt", "ENOBUFS"),
    _rule("getsockopt getsockname getpeername", "ENOBUFS"),
    _rule("shutdown", "ENOTCONN"),
    _rule("ioctl", "ENXIO", r"SIOCGARP"),
    _rule("ioctl", "EADDRNOTAVAIL ENODEV", r"SIOCGIF"),
    _rule("ioctl", "EIO"),
    _rule("poll ppoll select pselect6 epoll_wait epoll_pwait", "EINTR ENOMEM"),
    _rule("stat lstat newfstatat statx access faccessat faccessat2", "EACCES ENOMEM EIO"),
    _rule("fstat fstatfs statfs", "EIO ENOMEM"),
    # The mocking library asks so what a descriptor is; what it mocks does not.
    _rule("readlink", "", r'"/proc/self/fd/'),
    _rule("readlink readlinkat", "EACCES EIO"),
    _rule("unlink unlinkat", "EACCES EIO EBUSY"),
    _rule("rmdir", "EACCES EIO EBUSY"),
    _rule("symlink symlinkat mkdir mkdirat rename renameat renameat2", "ENOSPC EACCES ENOMEM"),
    _rule("chmod fchmod fchmodat chown fchown fchownat", "EPERM EIO"),
    _rule("getdents64", "EIO", r"/sys/class"),  # never goes
    _rule("getdents64", "EIO ENOENT"),
    _rule("fcntl", "EMFILE", r"F_DUPFD"),
    _rule("fcntl", "ENOMEM", r"F_(GETFL|SETFL)"),
    _rule("dup dup2 dup3 eventfd2 pipe2 epoll_create1 timerfd_create inotify_init1", "EMFILE"),
    _rule("mmap mprotect mremap", "ENOMEM"),
    _rule("clone clone3 fork vfork", "EAGAIN ENOMEM"),
    _rule("wait4 waitid", "EINTR"),
    _rule("clock_nanosleep nanosleep", "EINTR"),
    _rule("execve", "ENOMEM EACCES"),
    _rule("fallocate", "ENOSPC EOPNOTSUPP"),
    _rule("pidfd_open", "EMFILE"),
    _rule("getcwd", "ENOMEM"),
    _rule("mount umount2", "EBUSY EPERM ENOMEM"),
)

#: Calls that no fault is put into, and why.
LEFT_OUT = {
    "close": "the kernel frees the descriptor whatever it returns; a fault put in keeps it, so"
             " that the leak would be the tool's",
    "munmap": "as close, for memory",
    "brk": "the kernel answers with the break as it is, not with an error, which the C library takes"
           " for memory; without more of it, that comes from mmap",
    "futex": "fails by wrong arguments only; the C library ends the process over what it does not"
             " know",
    "restart_syscall": "a wait that goes on after strace has come",
    **dict.fromkeys(("exit", "exit_group", "rt_sigreturn"), "does not return"),
    **dict.fromkeys(("rt_sigaction", "rt_sigprocmask", "set_robust_list", "rseq", "madvise",
                     "lseek", "uname", "tgkill", "kill", "prlimit64", "prctl", "umask",
                     "sched_yield", "sched_getattr", "sched_setattr", "set_tid_address",
                     "arch_prctl"),
                    "fails by wrong arguments only"),
    **dict.fromkeys(("getpid", "gettid", "getuid", "geteuid", "getgid", "getegid", "getppid",
                     "clock_gettime", "gettimeofday", "time", "getrandom", "getpgrp"),
                    "does not fail"),
}


def errors_of(call: str, text: str) -> tuple[str, ...] | None:
    """The errors that are tried with this call; none for one that is left out, None for one that
    the table does not know."""
    if call in LEFT_OUT:
        return ()
    for rule in RULES:
        if call in rule.calls and re.search(rule.pattern, text):
            return rule.errors
    return () if call == "fcntl" else None
