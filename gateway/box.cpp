// SPDX-License-Identifier: MIT
// vxbox: runs a program in a throwaway copy of the machine.
//
//   vxbox [--bind DIR]... [--] PROGRAM [ARGUMENT...]
//
// The library works on fixed absolute paths. In the box those paths are real and nothing on the machine changes: own
// mount, IPC, host name, network and process namespaces; the machine's root as the lower layer of an overlay whose
// upper layer is memory; fresh /tmp, /run, /dev, /proc and /sys. No program in it can restart the machine, switch it
// off or put it to sleep. Works as root and, where the kernel allows it, as an ordinary user through a user namespace.
// Ends with the program's own exit status (128 + signal number when a signal ended it), 125 when the box could not be
// made. Everything started inside ends with it.
#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int cannotMakeBox = 125;
const std::string stage = "/mnt";  // covered by a tmpfs inside the box's own mount namespace only
const std::string newRoot = stage + "/root";

[[noreturn]] void fail(const std::string &what) {
    std::fprintf(stderr, "vxbox: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(cannotMakeBox);
}

void check(int result, const std::string &what) {
    if (result == -1) fail(what);
}

void makeDirs(const std::string &path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        ::mkdir(path.substr(0, slash).c_str(), 0755);
    }
    if (::mkdir(path.c_str(), 0755) == -1 && errno != EEXIST) fail("mkdir " + path);
}

void writeText(const std::string &path, const std::string &text) {
    std::ofstream file(path);
    file << text;
    file.flush();
    if (!file) fail("write " + path);
}

void mountTmpfs(const std::string &path, const char *options) {
    makeDirs(path);
    check(::mount("tmpfs", path.c_str(), "tmpfs", 0, options), "tmpfs on " + path);
}

void bind(const std::string &from, const std::string &to) {
    check(::mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr), "bind " + from);
}

// An ordinary user becomes root of a user namespace that maps to nobody but that user.
void becomeRootOfUserNamespace() {
    const std::string uid = std::to_string(::getuid());
    const std::string gid = std::to_string(::getgid());
    check(::unshare(CLONE_NEWUSER), "user namespace");
    writeText("/proc/self/setgroups", "deny");
    writeText("/proc/self/uid_map", "0 " + uid + " 1");
    writeText("/proc/self/gid_map", "0 " + gid + " 1");
}

void bindDevice(const std::string &name) {
    const std::string node = "/dev/" + name;
    const std::string target = newRoot + node;
    if (::access(node.c_str(), F_OK) == -1) return;
    makeDirs(target.substr(0, target.rfind('/')));
    const int fd = ::open(target.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0666);
    if (fd == -1) fail("create " + target);
    ::close(fd);
    bind(node, target);
}

void makeDev() {
    const std::string dev = newRoot + "/dev";
    mountTmpfs(dev, "mode=0755");
    for (const char *name : {"null", "zero", "full", "random", "urandom", "tty", "net/tun", "loop-control", "fuse"})
        bindDevice(name);
    for (int i = 0; i < 8; ++i) bindDevice("loop" + std::to_string(i));
    mountTmpfs(dev + "/shm", "mode=1777");
    makeDirs(dev + "/pts");
    if (::mount("devpts", (dev + "/pts").c_str(), "devpts", 0, "newinstance,ptmxmode=0666,mode=0620") == 0) {
        check(::symlink("pts/ptmx", (dev + "/ptmx").c_str()), "ptmx");
    }
    check(::symlink("/proc/self/fd", (dev + "/fd").c_str()), "/dev/fd");
    check(::symlink("/proc/self/fd/0", (dev + "/stdin").c_str()), "/dev/stdin");
    check(::symlink("/proc/self/fd/1", (dev + "/stdout").c_str()), "/dev/stdout");
    check(::symlink("/proc/self/fd/2", (dev + "/stderr").c_str()), "/dev/stderr");
}

// One of the machine's top directories, changeable in memory. One overlay over "/" as a whole would do for root, but a
// user namespace may not look below the mounts that it inherited.
void layOver(const std::string &name, bool inUserNamespace) {
    const std::string lower = "/" + name;
    const std::string upper = stage + "/upper/" + name;
    const std::string scratch = stage + "/scratch/" + name;
    for (const std::string &dir : {upper, scratch, newRoot + lower}) makeDirs(dir);
    std::string options = "lowerdir=" + lower + ",upperdir=" + upper + ",workdir=" + scratch;
    if (inUserNamespace) options += ",userxattr";
    if (::mount("overlay", (newRoot + lower).c_str(), "overlay", 0, options.c_str()) == 0) return;
    bind(lower, newRoot + lower);  // other file systems are mounted below it: seen as they are
}

// Directories that hold the library's fixed paths. They belong to the machine's root, whom a user namespace does not
// know: its own versions of them, merged with the machine's, can be written to.
void ownFixedDirectories() {
    for (const char *dir : {"/etc/default", "/usr/lib", "/usr/local/sbin", "/var/lib", "/var/log", "/var/spool"}) {
        makeDirs(stage + "/upper" + dir);
    }
}

void layOverMachine(bool inUserNamespace) {
    if (inUserNamespace) ownFixedDirectories();
    static const std::set<std::string> own{".", "..", "dev", "mnt", "proc", "run", "sys", "tmp"};
    DIR *machine = ::opendir("/");
    if (machine == nullptr) fail("/");
    while (const dirent *entry = ::readdir(machine)) {
        const std::string name = entry->d_name;
        const std::string path = "/" + name;
        struct stat about {};
        if (own.count(name) != 0 || ::lstat(path.c_str(), &about) == -1) continue;
        if (S_ISLNK(about.st_mode)) {
            std::array<char, 4096> target{};
            check(static_cast<int>(::readlink(path.c_str(), target.data(), target.size() - 1)), "readlink");
            check(::symlink(target.data(), (newRoot + path).c_str()), "symlink");
        } else if (S_ISDIR(about.st_mode)) {
            layOver(name, inUserNamespace);
        }
    }
    ::closedir(machine);
    for (const char *name : {"/mnt", "/proc", "/sys"}) makeDirs(newRoot + name);
}

void makeRoot(const std::vector<std::string> &binds, bool inUserNamespace) {
    check(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "private mounts");
    // Kept open: the stage may cover a directory that is to be bound.
    std::vector<int> trees;
    for (const std::string &path : binds) {
        const int tree = ::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (tree == -1) fail("open " + path);
        trees.push_back(tree);
    }
    mountTmpfs(stage, "mode=0755");
    mountTmpfs(newRoot, "mode=0755");
    layOverMachine(inUserNamespace);
    mountTmpfs(newRoot + "/tmp", "mode=1777");
    mountTmpfs(newRoot + "/run", "mode=0755");
    makeDirs(newRoot + "/run/lock");
    makeDirs(newRoot + "/run/netns");
    makeDev();
    check(::mount("proc", (newRoot + "/proc").c_str(), "proc", 0, nullptr), "proc");
    if (::mount("sysfs", (newRoot + "/sys").c_str(), "sysfs", 0, nullptr) == -1) bind("/sys", newRoot + "/sys");
    for (size_t i = 0; i < binds.size(); ++i) {
        makeDirs(newRoot + binds[i]);
        bind("/proc/self/fd/" + std::to_string(trees[i]), newRoot + binds[i]);
        ::close(trees[i]);
    }
}

// What would reach the machine itself through its kernel's files: emergency keys, sleep and hibernation.
void coverMachineSwitches() {
    const std::string keys = newRoot + "/proc/sysrq-trigger";
    if (::access(keys.c_str(), F_OK) == 0) bind("/dev/null", keys);
    const std::string sleep = newRoot + "/sys/power";
    if (::access(sleep.c_str(), F_OK) == 0) {
        check(::mount("tmpfs", sleep.c_str(), "tmpfs", MS_RDONLY, nullptr), "cover " + sleep);
    }
}

void enterRoot(const std::string &workingDir) {
    check(::chdir(newRoot.c_str()), "chdir " + newRoot);
    check(static_cast<int>(::syscall(SYS_pivot_root, ".", ".")), "pivot_root");
    check(::umount2(".", MNT_DETACH), "leave the old root");
    check(::chdir("/"), "chdir /");
    if (::chdir(workingDir.c_str()) == -1) check(::chdir("/"), "chdir /");
}

void loopbackUp() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) fail("socket");
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    check(::ioctl(fd, SIOCSIFFLAGS, &request), "loopback up");
    ::close(fd);
}

int exitStatus(int status) { return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status); }

int waitFor(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) == -1) {
        if (errno != EINTR) fail("waitpid");
    }
    return exitStatus(status);
}

// Restart, power-off and a new kernel are the machine's: the capability is out of reach for good, root or not.
void giveUpRestarting() { check(::prctl(PR_CAPBSET_DROP, CAP_SYS_BOOT), "give up restarting"); }

// First process of the box: starts the program, reaps whatever is orphaned, ends with the program.
[[noreturn]] void runInit(char **command) {
    const pid_t program = ::fork();
    if (program == -1) fail("fork");
    if (program == 0) {
        ::setenv("VXBOX", "1", 1);
        giveUpRestarting();
        ::execvp(command[0], command);
        fail(command[0]);
    }
    for (;;) {
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, 0);
        if (pid == program) ::_exit(exitStatus(status));
        if (pid == -1 && errno != EINTR) fail("waitpid");
    }
}

pid_t boxInit = -1;

void endBox(int) {
    if (boxInit > 0) ::kill(boxInit, SIGKILL);
}

std::string absolute(const char *path) {
    char *resolved = ::realpath(path, nullptr);
    if (resolved == nullptr) fail(path);
    std::string result = resolved;
    std::free(resolved);
    return result;
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string> binds;
    int next = 1;
    while (next < argc && std::string_view(argv[next]).substr(0, 2) == "--") {
        const std::string_view option = argv[next++];
        if (option == "--") break;
        if (option != "--bind" || next == argc) {
            std::fputs("usage: vxbox [--bind DIR]... [--] PROGRAM [ARGUMENT...]\n", stderr);
            return cannotMakeBox;
        }
        binds.push_back(absolute(argv[next++]));
    }
    if (next >= argc) {
        std::fputs("vxbox: no program to run\n", stderr);
        return cannotMakeBox;
    }
    const std::string workingDir = absolute(".");
    const bool inUserNamespace = ::geteuid() != 0;
    if (inUserNamespace) becomeRootOfUserNamespace();
    check(::unshare(CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWNET | CLONE_NEWPID), "namespaces");
    boxInit = ::fork();
    if (boxInit == -1) fail("fork");
    if (boxInit == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        makeRoot(binds, inUserNamespace);
        coverMachineSwitches();
        enterRoot(workingDir);
        loopbackUp();
        check(::sethostname("gateway", 7), "host name");
        runInit(argv + next);
    }
    // Ctrl-C belongs to the program inside; a request to end takes the whole box down.
    std::signal(SIGINT, SIG_IGN);
    for (const int signal : {SIGTERM, SIGHUP}) std::signal(signal, endBox);
    return waitFor(boxInit);
}
