// SPDX-License-Identifier: MIT
// vxbox: runs a program in a throwaway system that is made of the machine's own programs; --help lists its options.
//
// The library works on fixed absolute paths. In the box those paths are real and nothing on the machine changes:
//  - Own mount, process, network, IPC and host-name namespaces. /tmp, /run, /var, /dev, /proc, /sys and the home
//    directories are fresh.
//  - Of the machine's files only /usr, /etc, /bin, /sbin and /lib* are seen, each as the lower layer of an overlay
//  whose
//    upper layer is memory, and what --show and --share name.
//  - The program is root in a user namespace of its own. The mounts are made outside of it, so the kernel locks them:
//    root in the box can neither make a read-only one writable nor look below one. No program can restart the machine,
//    set its clock, load a module or make a device node.
// An ordinary user, or root without the right to mount, gets the same through one more user namespace. Everything that
// was started inside ends with the program.
#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <net/if.h>
#include <poll.h>
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
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/ignored_signal.h"
#include "gateway/standard_streams.h"

namespace {

constexpr const char *usage =
    "usage: vxbox [OPTION]... [--] PROGRAM [ARGUMENT...]\n"
    "Runs a program in a throwaway system made of the machine's own programs; nothing on the machine changes.\n"
    "\n"
    "  --show PATH PLACE   the machine's file or directory PATH is seen, read-only, at PLACE in the box\n"
    "  --share DIR PLACE   the machine's directory DIR is seen at PLACE and can be written to: the only way out\n"
    "  --device NAME       the machine's device /dev/NAME is seen as well\n"
    "  --privileged        root keeps its rights over the kernel (device nodes, disks, settings), for tests that need\n"
    "                      them; such a program must be trusted\n"
    "\n"
    "Ends with the program's own exit status (128 + signal number when a signal ended it), 125 when the box could not\n"
    "be made, 126 when the program could not be run, 127 when it was not found.\n";

enum ExitStatus { cannotMakeBox = 125, cannotRun = 126, notFound = 127 };

const std::string stage = "/tmp";  // covered by a tmpfs inside the box's own mount namespace only
const std::string newRoot = stage + "/root";
const std::string upperRoot = stage + "/upper";

// --- Failures ---------------------------------------------------------------------------------------------------

long setting(const std::string &name, long otherwise) {
    std::ifstream file("/proc/sys/" + name);
    long value = 0;
    return file >> value ? value : otherwise;
}

// What a user can do about a kernel or a container that does not allow the namespaces and mounts of a box.
void explainRights() {
    const char *advice = nullptr;
    if (setting("user/max_user_namespaces", 1) == 0) {
        advice = "the system allows no user namespaces: as root, sysctl user.max_user_namespaces=15000";
    } else if (setting("kernel/unprivileged_userns_clone", 1) == 0) {
        advice =
            "user namespaces are for root only here: as root, sysctl kernel.unprivileged_userns_clone=1, or run this "
            "as root";
    } else if (setting("kernel/apparmor_restrict_unprivileged_userns", 0) == 1) {
        advice =
            "AppArmor restricts user namespaces: as root, sysctl kernel.apparmor_restrict_unprivileged_userns=0, or "
            "run this as root";
    } else {
        advice =
            "neither this user (CAP_SYS_ADMIN) nor a user namespace may mount here. In a container: start it with "
            "--privileged, or with --cap-add SYS_ADMIN --security-opt seccomp=unconfined --security-opt "
            "apparmor=unconfined --security-opt systempaths=unconfined";
    }
    std::fprintf(stderr, "vxbox: %s\n", advice);
}

[[noreturn]] void fail(const std::string &what) {
    const int error = errno;
    std::fprintf(stderr, "vxbox: %s: %s\n", what.c_str(), std::strerror(error));
    if (error == EPERM || error == ENOSPC || error == EUSERS) explainRights();
    std::exit(cannotMakeBox);
}

void check(int result, const std::string &what) {
    if (result == -1) fail(what);
}

// --- Files ------------------------------------------------------------------------------------------------------

void makeDirs(const std::string &path, mode_t mode = 0755) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        ::mkdir(path.substr(0, slash).c_str(), 0755);
    }
    if (path.back() != '/' && ::mkdir(path.c_str(), mode) == -1 && errno != EEXIST) fail("mkdir " + path);
}

void makeFile(const std::string &path) {
    makeDirs(path.substr(0, path.rfind('/') + 1));
    const int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
    if (fd == -1 && errno == EEXIST) return;
    check(fd, "create " + path);
    ::close(fd);
}

void makeLink(const std::string &target, const std::string &path) {
    check(::symlink(target.c_str(), path.c_str()), "link " + path);
}

std::string linkTarget(const std::string &path) {
    std::array<char, 4096> target{};
    check(static_cast<int>(::readlink(path.c_str(), target.data(), target.size() - 1)), "readlink " + path);
    return target.data();
}

bool isDirectory(const std::string &path) {
    struct stat about {};
    return ::stat(path.c_str(), &about) == 0 && S_ISDIR(about.st_mode);
}

std::vector<std::string> entries(const std::string &path) {
    DIR *dir = ::opendir(path.c_str());
    if (dir == nullptr) fail(path);
    std::vector<std::string> paths;
    while (const dirent *entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        paths.push_back(path);
        paths.back().append("/").append(name);
    }
    ::closedir(dir);
    return paths;
}

void mountTmpfs(const std::string &path, const char *options) {
    makeDirs(path);
    check(::mount("tmpfs", path.c_str(), "tmpfs", 0, options), "tmpfs on " + path);
}

void makeReadOnly(const std::string &place) {
    mount_attr attributes{};
    attributes.attr_set = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NODEV;
    check(::mount_setattr(AT_FDCWD, place.c_str(), AT_RECURSIVE, &attributes, sizeof attributes),
          "make " + place + " read-only");
}

// A file or directory of the machine with all that is mounted below, as it is now: later mounts do not cover it.
int cloneTree(const std::string &path) {
    const int tree = ::open_tree(AT_FDCWD, path.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE);
    check(tree, "open " + path);
    return tree;
}

enum class Access { read, write };

void attach(int tree, const std::string &place, Access access) {
    struct stat about {};
    check(::fstat(tree, &about), "look at " + place);
    if (S_ISDIR(about.st_mode)) {
        makeDirs(place);
    } else {
        makeFile(place);
    }
    check(::move_mount(tree, "", AT_FDCWD, place.c_str(), MOVE_MOUNT_F_EMPTY_PATH), "mount " + place);
    if (access == Access::read) makeReadOnly(place);
    ::close(tree);
}

void bind(const std::string &path, const std::string &place, Access access) { attach(cloneTree(path), place, access); }

// While it lives, paths are those of the box: no link of the machine's leads out.
class InRoot {
public:
    explicit InRoot(const std::string &root) : outside_(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)) {
        check(outside_, "open /");
        check(::chroot(root.c_str()), "chroot " + root);
        check(::chdir("/"), "chdir /");
    }
    ~InRoot() {
        check(::fchdir(outside_), "chdir");
        check(::chroot("."), "chroot");
        ::close(outside_);
    }
    InRoot(const InRoot &) = delete;
    InRoot &operator=(const InRoot &) = delete;

private:
    int outside_;
};

// --- User namespaces --------------------------------------------------------------------------------------------

void writeText(const std::string &path, const std::string &text) {
    std::ofstream file(path);
    file << text;
    file.flush();
    if (!file) fail("write " + path);
}

// The caller becomes root of a user namespace that knows no other user.
void becomeOnlyUser() {
    const std::string uid = std::to_string(::geteuid());
    const std::string gid = std::to_string(::getegid());
    check(::unshare(CLONE_NEWUSER | CLONE_NEWNS), "user namespace");
    writeText("/proc/self/setgroups", "deny");
    writeText("/proc/self/uid_map", "0 " + uid + " 1");
    writeText("/proc/self/gid_map", "0 " + gid + " 1");
}

// Every user or group that this namespace knows, under the same number.
std::string sameIds(const char *map) {
    std::ifstream extents(map);
    std::ostringstream text;
    unsigned long first = 0;
    unsigned long outside = 0;
    unsigned long count = 0;
    while (extents >> first >> outside >> count) text << first << ' ' << first << ' ' << count << '\n';
    return text.str();
}

void mapSameIds(pid_t pid) {
    const std::string process = "/proc/" + std::to_string(pid);
    writeText(process + "/uid_map", sameIds("/proc/self/uid_map"));
    writeText(process + "/gid_map", sameIds("/proc/self/gid_map"));
}

// Two processes that wait for one another.
class Turnstile {
public:
    Turnstile() { check(::pipe2(ends_.data(), O_CLOEXEC), "pipe"); }
    void open() const {
        if (::write(ends_[1], "", 1) != 1) fail("pipe");
    }
    // False when the other process has ended.
    bool pass() {
        ::close(ends_[1]);
        char byte = 0;
        return ::read(ends_[0], &byte, 1) == 1;
    }
    // After pass(): whether the other process has ended since.
    bool isAlone() const {
        pollfd waiting{ends_[0], POLLIN, 0};
        return ::poll(&waiting, 1, 0) == 1 && (waiting.revents & POLLHUP) != 0;
    }

private:
    std::array<int, 2> ends_{};
};

// --- The box's root ---------------------------------------------------------------------------------------------

class Root {
public:
    // `othersFiles`: the machine's files belong to users whom this namespace does not know, so they cannot be copied
    // up.
    explicit Root(bool othersFiles) : othersFiles_(othersFiles) {
        mountTmpfs(stage, "mode=0755");
        mountTmpfs(newRoot, "mode=0755");
    }

    void showSystem() const {
        for (const char *name : {"usr", "etc", "bin", "sbin", "lib", "lib32", "lib64", "libx32"}) {
            const std::string path = std::string("/") + name;
            struct stat about {};
            if (::lstat(path.c_str(), &about) == -1) continue;
            if (S_ISLNK(about.st_mode)) {
                makeLink(linkTarget(path), newRoot + path);
            } else {
                layOver(path);
            }
        }
    }

    void makeFreshDirectories() const {
        for (const char *path : {"/home", "/media", "/mnt", "/opt", "/proc", "/srv", "/sys", "/var/cache", "/var/lib",
                                 "/var/local", "/var/log", "/var/spool"}) {
            makeDirs(newRoot + path);
        }
        makeDirs(newRoot + "/root", 0700);
        makeDirs(newRoot + "/var/tmp", 01777);
        mountTmpfs(newRoot + "/tmp", "mode=1777");
        mountTmpfs(newRoot + "/run", "mode=0755");
        makeDirs(newRoot + "/run/lock");
        makeDirs(newRoot + "/run/netns");
        makeLink("/run", newRoot + "/var/run");
        makeLink("/run/lock", newRoot + "/var/lock");
    }

    static void makeDevices(const std::vector<std::string> &more) {
        const std::string dev = newRoot + "/dev";
        mountTmpfs(dev, "mode=0755");
        for (const char *name : {"null", "zero", "full", "random", "urandom", "tty", "net/tun", "fuse"}) {
            const std::string node = std::string("/dev/") + name;
            if (::access(node.c_str(), F_OK) == 0) bind(node, newRoot + node, Access::write);
        }
        for (const std::string &name : more) {
            const std::string node = "/dev/" + name;
            bind(node, newRoot + node, Access::write);
        }
        mountTmpfs(dev + "/shm", "mode=1777");
        makeDirs(dev + "/pts");
        const std::string pts = dev + "/pts";
        if (::mount("devpts", pts.c_str(), "devpts", 0, "newinstance,ptmxmode=0666,mode=0620") == 0) {
            makeLink("pts/ptmx", dev + "/ptmx");
        }
        makeLink("/proc/self/fd", dev + "/fd");
        makeLink("/proc/self/fd/0", dev + "/stdin");
        makeLink("/proc/self/fd/1", dev + "/stdout");
        makeLink("/proc/self/fd/2", dev + "/stderr");
    }

private:
    // Directories that hold the library's fixed paths: whatever can be laid over, these can be written to.
    static constexpr std::array<const char *, 3> fixed{"/etc/default/", "/usr/lib/", "/usr/local/sbin/"};

    static std::vector<std::string> fixedBelow(const std::string &path) {
        std::vector<std::string> found;
        for (const std::string one : fixed) {
            if (one.compare(0, path.size(), path) == 0 && one[path.size()] == '/') found.push_back(one);
        }
        return found;
    }

    // One of the machine's directories, changeable in memory.
    void layOver(const std::string &path) const {
        const std::string upper = upperRoot + path;
        const std::string scratch = stage + "/scratch" + path;
        for (const std::string &dir : {upper, scratch, newRoot + path}) makeDirs(dir);
        std::string options = "lowerdir=" + path + ",upperdir=" + upper + ",workdir=" + scratch;
        if (othersFiles_) {
            // Own versions of them, merged with the machine's, can be written to.
            for (const std::string &dir : fixedBelow(path)) makeDirs(upperRoot + dir);
            options += ",userxattr";
        }
        if (::mount("overlay", (newRoot + path).c_str(), "overlay", MS_NODEV, options.c_str()) == -1) mirror(path);
    }

    // The same where the kernel has no overlay for it (other file systems are mounted below, or it is one overlay too
    // many): a directory in memory whose entries are the machine's, read-only.
    void mirror(const std::string &path) const {
        for (const std::string &entry : entries(path)) {
            struct stat about {};
            if (::lstat(entry.c_str(), &about) == -1) continue;
            if (S_ISLNK(about.st_mode)) {
                makeLink(linkTarget(entry), newRoot + entry);
            } else if (S_ISDIR(about.st_mode) && !fixedBelow(entry).empty()) {
                layOver(entry);
            } else if (S_ISDIR(about.st_mode) || S_ISREG(about.st_mode)) {
                bind(entry, newRoot + entry, Access::read);
            }
        }
    }

    bool othersFiles_;
};

void mountProc(bool privileged) {
    const std::string proc = newRoot + "/proc";
    check(::mount("proc", proc.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr), "proc");
    // Emergency keys reach the machine whatever the namespace.
    const std::string keys = proc + "/sysrq-trigger";
    if (::access(keys.c_str(), F_OK) == 0) bind("/dev/null", keys, Access::write);
    if (privileged) return;
    // The network's settings are the box's own, the kernel's other ones are the machine's.
    const std::string network = proc + "/sys/net";
    const int ownSettings = cloneTree(network);
    for (const char *name : {"/acpi", "/bus", "/fs", "/irq", "/sys"}) {
        if (isDirectory(proc + name)) bind(proc + name, proc + name, Access::read);
    }
    attach(ownSettings, network, Access::write);
}

void mountSysfs(const std::string &place, bool privileged) {
    makeDirs(place);
    if (::mount("sysfs", place.c_str(), "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == -1) {
        bind("/sys", place, Access::read);
    }
    if (!privileged) makeReadOnly(place);
}

void mountSys(bool privileged) {
    const std::string sys = newRoot + "/sys";
    mountSysfs(sys, privileged);
    // "ip netns exec" unmounts /sys and mounts it anew; the kernel allows that while another one is seen in full.
    mountSysfs(newRoot + "/.sys", privileged);
    // Sleep and hibernation.
    const std::string power = sys + "/power";
    if (isDirectory(power)) check(::mount("tmpfs", power.c_str(), "tmpfs", MS_RDONLY, nullptr), "cover " + power);
}

// The kernel lets a process leave its old root only for a mount that this namespace made.
void enterRoot(const std::string &workingDir) {
    check(::chdir(newRoot.c_str()), "chdir " + newRoot);
    check(static_cast<int>(::syscall(SYS_pivot_root, ".", ".")), "pivot_root");
    check(::umount2(".", MNT_DETACH), "leave the old root");
    check(::chdir("/"), "chdir /");
    if (::chdir(workingDir.c_str()) == -1) check(::chdir("/"), "chdir /");
}

void loopbackUp() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    check(fd, "socket");
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    check(::ioctl(fd, SIOCSIFFLAGS, &request), "loopback up");
    ::close(fd);
}

// --- Processes --------------------------------------------------------------------------------------------------

// Rights over the machine that no program of a box needs: out of reach for good, root or not.
void giveUpRights(bool privileged) {
    for (const int right : {CAP_SYS_BOOT, CAP_SYS_MODULE, CAP_SYS_RAWIO, CAP_SYS_TIME}) {
        check(::prctl(PR_CAPBSET_DROP, right), "give up rights");
    }
    if (!privileged) check(::prctl(PR_CAPBSET_DROP, CAP_MKNOD), "give up rights");
}

int exitStatus(int status) { return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status); }

// First process of the box: starts the program, reaps whatever is orphaned, ends with the program.
[[noreturn]] void runInit(char **command, mode_t mask) {
    const pid_t program = ::fork();
    check(program, "fork");
    if (program == 0) {
        ::umask(mask);
        ::setenv("VXBOX", "1", 1);
        ::execvp(command[0], command);
        const int status = errno == ENOENT ? notFound : cannotRun;
        std::fprintf(stderr, "vxbox: %s: %s\n", command[0], std::strerror(errno));
        std::_Exit(status);
    }
    for (;;) {
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, 0);
        if (pid == program) ::_exit(exitStatus(status));
        if (pid == -1 && errno != EINTR) fail("waitpid");
    }
}

struct Seen {
    std::string path;
    std::string place;
    Access access;
};

struct Options {
    std::vector<Seen> seen;
    std::vector<std::string> devices;
    bool privileged = false;
    char **command = nullptr;
};

[[noreturn]] void runBox(const Options &options, bool othersFiles, Turnstile &inUserNamespace, Turnstile &mapped) {
    std::array<char, 4096> workingDir{};
    const mode_t mask = ::umask(0);
    if (::getcwd(workingDir.data(), workingDir.size()) == nullptr) workingDir[0] = '\0';
    check(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "private mounts");
    std::vector<int> trees;
    for (const Seen &one : options.seen) trees.push_back(cloneTree(one.path));  // the stage may cover them
    const Root root(othersFiles);
    root.showSystem();
    root.makeFreshDirectories();
    Root::makeDevices(options.devices);
    mountProc(options.privileged);
    {
        const InRoot inside(newRoot);
        for (size_t i = 0; i < trees.size(); ++i) attach(trees[i], options.seen[i].place, options.seen[i].access);
    }

    if (!options.privileged) check(::unshare(CLONE_NEWUSER), "user namespace");
    inUserNamespace.open();
    if (!mapped.pass()) std::exit(cannotMakeBox);
    check(::setresgid(0, 0, 0), "become root");
    check(::setresuid(0, 0, 0), "become root");
    check(::prctl(PR_SET_PDEATHSIG, SIGKILL), "end with the parent");
    if (mapped.isAlone()) std::exit(cannotMakeBox);  // a parent that ended before sends no signal
    check(::unshare(CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWNET), "namespaces");
    check(::mount(newRoot.c_str(), newRoot.c_str(), nullptr, MS_BIND | MS_REC, nullptr), "bind " + newRoot);
    mountSys(options.privileged);
    enterRoot(workingDir.data());
    loopbackUp();
    check(::sethostname("gateway", 7), "host name");
    giveUpRights(options.privileged);
    runInit(options.command, mask);
}

pid_t boxInit = -1;

void endBox(int) {
    if (boxInit > 0) ::kill(boxInit, SIGKILL);
}

int waitForBox() {
    int status = 0;
    while (::waitpid(boxInit, &status, 0) == -1) {
        if (errno != EINTR) fail("waitpid");
    }
    return exitStatus(status);
}

[[noreturn]] void wrongUsage(const std::string &what) {
    std::fprintf(stderr, "vxbox: %s\n%s", what.c_str(), usage);
    std::exit(cannotMakeBox);
}

Seen seen(const char *path, const char *place, Access access) {
    if (place[0] != '/') wrongUsage(std::string("not an absolute path: ") + place);
    return {path, place, access};
}

Options parse(int argc, char **argv) {
    Options options;
    int next = 1;
    const auto argument = [&]() -> const char * {
        if (next >= argc) wrongUsage(std::string("an argument is missing after ") + argv[argc - 1]);
        return argv[next++];
    };
    while (next < argc && argv[next][0] == '-') {
        const std::string_view option = argv[next++];
        if (option == "--") break;
        if (option == "--help") {
            std::fputs(usage, stdout);
            std::exit(0);
        } else if (option == "--show" || option == "--share") {
            const char *path = argument();
            const char *place = argument();
            options.seen.push_back(seen(path, place, option == "--show" ? Access::read : Access::write));
        } else if (option == "--device") {
            options.devices.emplace_back(argument());
        } else if (option == "--privileged") {
            options.privileged = true;
        } else {
            wrongUsage("unknown option: " + std::string(option));
        }
    }
    if (next >= argc) wrongUsage("no program to run");
    options.command = argv + next;
    return options;
}

}  // namespace

int main(int argc, char **argv) {
    openStandardStreams();
    std::signal(SIGCHLD, SIG_DFL);  // a caller that ignores it has the kernel throw away the program's status
    const Options options = parse(argc, argv);
    bool othersFiles = false;
    if (::geteuid() != 0 || ::unshare(CLONE_NEWNS) == -1) {
        othersFiles = ::geteuid() != 0;
        becomeOnlyUser();
    }
    check(::unshare(CLONE_NEWPID), "process namespace");
    Turnstile inUserNamespace;
    Turnstile mapped;
    boxInit = ::fork();
    check(boxInit, "fork");
    if (boxInit == 0) runBox(options, othersFiles, inUserNamespace, mapped);
    // Signals of the terminal belong to the program inside; a request to end takes the whole box down.
    for (const int signal : {SIGINT, SIGQUIT}) std::signal(signal, SIG_IGN);
    std::signal(SIGTERM, endBox);
    if (!isIgnored(SIGHUP)) std::signal(SIGHUP, endBox);
    if (inUserNamespace.pass()) {
        if (!options.privileged) mapSameIds(boxInit);
        mapped.open();
    }
    return waitForBox();
}
