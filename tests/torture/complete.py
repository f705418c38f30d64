#!/usr/bin/python3
"""Tells which calls of the library the fault injection does not know.

    complete.py LIBRARY NM CALLS_SOURCE...

Every undefined symbol of the library is either interposed by one of the sources (torture/calls.cpp, support/intercept.h)
or listed here as a call that cannot fail, or that fails by its arguments alone. Prints the others; exit status 1 then.
"""
import pathlib
import re
import subprocess
import sys

# Texts, numbers and memory contents; environment of the process; ends of things, which free what they name.
CANNOT_FAIL = """
    memchr memcmp memcpy memmove mempcpy memrchr memset explicit_bzero stpcpy strchr strchrnul strcmp strcpy strcspn strlen
    strrchr strncmp strnlen strspn strstr strtok_r tolower toupper ispunct isspace strerror strtod strtol strtoll strtoul strtoull
    strncasecmp_l strtod_l freelocale strptime strftime mktime localtime_r tzset rand random inet_addr inet_ntop inet_pton dirname basename
    sscanf __isoc99_sscanf snprintf vsnprintf printf perror ferror fileno dirfd getpid getppid getuid geteuid getegid getdtablesize
    umask signal program_invocation_short_name __progname openlog closelog setlogmask dlerror dlclose dlsym
    free freeifaddrs exit _exit abort munmap shmdt event_debug_unassign event_get_base event_get_struct_event_size
    event_assign bufferevent_disable bufferevent_getcb bufferevent_read pthread_mutex_consistent pthread_mutex_destroy pthread_mutex_lock
    pthread_mutex_unlock pthread_mutexattr_destroy pthread_mutexattr_setpshared pthread_mutexattr_setrobust
    pthread_mutexattr_settype pthread_mutex_trylock pthread_key_delete DL_ERR DL_ERROR DL_INFO devlog_level_to_prio
    fputs fputc puts putchar fwrite sigemptyset sigaddset sigismember pthread_sigmask
""".split()
REASONS = {
    "__register_atfork": "runs once in a process, before any scenario of a second object",
    "devlog_level_create": "runs when the library is loaded, before any scenario",
    "gethostbyname_r": "its result for names is tested with real hosts",
    "getpeername": "asks a socket that has just been connected",
    "kill": "asks with signal 0; each of its answers is tested",
    "lseek": "fails on what cannot be positioned: a scenario of its own in the tests",
    "newlocale": "gives the C locale's own object, for which nothing is allocated",
    "pthread_key_create": "runs once in a process, and is missed only where a program has used up all keys",
    "pthread_setspecific": "allocates nothing for the first 32 keys of a process",
    "setvbuf": "takes the buffer of a new stream away, which allocates nothing",
    "shmctl": "a segment that cannot be removed is one that is held, which is tested",
    "sysconf": "the clock ticks per second are a constant",
    "sigtimedwait": "fails where no signal is pending, which is the ordinary case",
    "syscall": "close_range; its absence is tested apart",
    "zmq_getsockopt": "reads a value",
}
INTERNAL = re.compile(r"^(_Z|__asan|__ubsan|__sanitizer|__cxa|_Unwind|__gmon|_ITM|__gxx|__tls|__errno|__popcount|__assert|__stack)")


def main():
    library, nm, *sources = sys.argv[1:]
    text = "\n".join(pathlib.Path(s).read_text() for s in sources)
    known = set(re.findall(r"^VX_\w+\([^,]*,\s*(\w+),", text, re.M))
    known |= set(re.findall(r"^(?:extern \"C\" )?[\w *]+?\b\*?(\w+)\([^;]*?\)\s*(?:noexcept\s*)?\{", text, re.M))
    listing = subprocess.run([nm, "-D", "--undefined-only", library], capture_output=True, text=True, check=True).stdout
    symbols = {line.split()[-1].split("@")[0] for line in listing.splitlines()}
    unknown = sorted(s for s in symbols
                     if not INTERNAL.match(s) and s not in known and s not in CANNOT_FAIL and s not in REASONS)
    for symbol in unknown:
        print(f"not injected: {symbol}: add it to calls.cpp, or to complete.py with the reason why it cannot fail")
    return 1 if unknown else 0


if __name__ == "__main__":
    sys.exit(main())
