#!/usr/bin/python3
"""Tells which calls the fault injection leaves out.

    complete.py LIBRARY NM CALLS_SOURCE...

Every undefined symbol of the library is either interposed by one of the sources (torture/calls.cpp, support/intercept.h)
or listed here as a call that cannot fail, or that fails by its arguments alone. Every C function that the library exports
is called by a scenario, or listed here as one that makes no call which can fail. Prints the others; exit status 1 then.
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
# Texts, numbers, lists and records in memory; nothing of the system is asked.
NO_FALLIBLE_CALLS = """
    __list_add __list_del list_add list_add_tail list_del list_del_init list_empty list_splice addr2str addr_differs card2family
    cidr2netmask net2cidr net2str netmask2cidr route_differs str2addr4 str2addr6 strip_host_part_from_network_address
    is_link_local_address convBinToHex convIPStr2IPUl convIPUL2IPStr dataChunk2String nbrOfChars_forDataChunk2String diffts
    uselapsed dio_getInValueFromStatus dio_getOutValueFromStatus dio_setInValueInStatus e164Number escape format_rate format_size
    get_generation i16toa i32toa mkid u_i16toa u_i32toa interfaceize is_number mem_stream_free_space_left
    mem_stream_get_num_bytes_written mem_stream_get_num_chars_written mem_stream_printf mem_stream_puts nextHigherPowerOf2
    reverse semopt_set_consistent_mode_automatic skipchars stripchars stripwhite snxprintf vsnxprintf strlenf vstrlenf stricmp
    strnicmp strtolower strtoupper u_validRangeValueOf16 u_validRangeValueOf32 u_validValueOf16 u_validValueOf32 u_valueOf16
    u_valueOf32 validRangeValueOf16 validRangeValueOf32 validValueOf16 validValueOf32 valueOf16 valueOf32 validateDate
    validateTime validateTimeString vxutils_version xml_readattr
""".split()
INTERNAL = re.compile(r"^(_Z|__asan|__ubsan|__sanitizer|__cxa|_Unwind|__gmon|_ITM|__gxx|__tls|__errno|__popcount|__assert|__stack)")


def symbols(nm, library, kind):
    listing = subprocess.run([nm, "-D", kind, library], capture_output=True, text=True, check=True).stdout
    return {(line.split()[-2], line.split()[-1].split("@")[0]) for line in listing.splitlines()}


def main():
    library, nm, *sources = sys.argv[1:]
    text = "\n".join(pathlib.Path(s).read_text() for s in sources)
    known = set(re.findall(r"^VX_\w+\([^,]*,\s*(\w+),", text, re.M))
    known |= set(re.findall(r"^(?:extern \"C\" )?[\w *]+?\b\*?(\w+)\([^;]*?\)\s*(?:noexcept\s*)?\{", text, re.M))
    unknown = sorted(s for _, s in symbols(nm, library, "--undefined-only")
                     if not INTERNAL.match(s) and s not in known and s not in CANNOT_FAIL and s not in REASONS)
    for symbol in unknown:
        print(f"not injected: {symbol}: add it to calls.cpp, or to complete.py with the reason why it cannot fail")
    scenarios = "\n".join(p.read_text() for p in pathlib.Path(__file__).parent.glob("*_torture.cpp"))
    called = set(re.findall(r"\b\w+\b", re.sub(r'"[^"\n]*"|//.*', "", scenarios)))
    exported = {s for kind, s in symbols(nm, library, "--defined-only") if kind == "T" and not s.startswith("_Z")}
    left_out = sorted(exported - called - set(NO_FALLIBLE_CALLS))
    for symbol in left_out:
        print(f"in no scenario: {symbol}: call it in one, or add it to complete.py if none of its calls can fail")
    return 1 if unknown or left_out else 0


if __name__ == "__main__":
    sys.exit(main())
