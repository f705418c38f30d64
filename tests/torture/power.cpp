// SPDX-License-Identifier: MIT
// Power cuts for write_file_atomic(). A writer replaces a file on ext4 again and again. The file system lies on a loop
// device whose blocks are served by a process of this program, which records each write and each flush. Afterwards a cut is made
// after any of these: a new image gets what was written before the last flush, and of the writes after it, which a medium may
// keep or lose, all, none, or some of the sectors. Each image is mounted, ext4 replays its journal, and a reader looks at
// the file.
//
//   power [--rounds N] [--seed S] [--options MOUNT_OPTIONS] [--unordered]
//
// With --unordered, for mount options that do not write data before a rename, empty files and mixtures are counted but are
// no findings: they show that the cuts find what there is to be found.
//
// Needs root, /dev/fuse, loop devices and mkfs.ext4, and ends with status 77 without them. Mounts are made in a mount
// namespace of this program, loop devices free themselves, and the process that serves the disk lives until nothing needs
// it any more: nothing is left whatever ends this program.
#include <fcntl.h>
#include <linux/fuse.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxutils/file.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t diskSize = size_t{16} << 20;
constexpr size_t logRoom = size_t{192} << 20;
constexpr size_t sectorSize = 512;
constexpr uint64_t superblock = 1024;  // ext4 does not mount what has half of a new one, whatever wrote files there
constexpr unsigned int maxGenerations = 4000;
constexpr int generations = 400;
constexpr const char *work = "/mnt";  // a tmpfs of this program covers it
constexpr int cannotRun = 77;

[[noreturn]] void refuse(const char *what) {
    std::printf("power: not run here: %s%s%s\n", what, errno != 0 ? ": " : "", errno != 0 ? std::strerror(errno) : "");
    std::exit(cannotRun);
}

std::string at(const char *name) { return std::string(work) + "/" + name; }

// ---- What is recorded ----

struct Entry {
    enum Kind : uint32_t { write, flush } kind;
    uint32_t length;
    uint64_t offset;  // on the disk
    uint64_t data;    // in Shared::bytes
};

// Of all processes.
struct Shared {
    std::atomic<size_t> entries;
    std::atomic<size_t> used;  // of bytes
    std::atomic<bool> full;
    std::array<Entry, 65536> log;
    // Positions in the log when the write of this content began, and when it had been forced to the medium.
    std::array<size_t, maxGenerations> begun;
    std::array<size_t, maxGenerations> forced;
    char bytes[logRoom];
};

Shared *shareMemory() {
    void *const memory =
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) refuse("memory for the record");
    return static_cast<Shared *>(memory);
}

void record(Shared &shared, Entry entry, const char *data) {
    const size_t number = shared.entries;
    const size_t place = shared.used;
    if (number == shared.log.size() || place + entry.length > logRoom) {
        shared.full = true;
        return;
    }
    if (entry.length > 0) std::memcpy(shared.bytes + place, data, entry.length);
    entry.data = place;
    shared.log.at(number) = entry;
    shared.used = place + entry.length;
    shared.entries = number + 1;
}

// ---- The disk: a file system with one file, "disk" ----

constexpr uint64_t rootNode = FUSE_ROOT_ID;
constexpr uint64_t diskNode = 2;

class Disk {
public:
    Disk(int fuse, std::vector<char> content, Shared &shared)
        : fuse_(fuse), content_(std::move(content)), shared_(shared), request_((1U << 20) + 4096) {}

    // Serves until the file system is unmounted.
    void serve() {
        for (;;) {
            const ssize_t got = ::read(fuse_, request_.data(), request_.size());
            if (got == -1 && (errno == EINTR || errno == ENOENT || errno == EAGAIN)) continue;
            if (got < static_cast<ssize_t>(sizeof(fuse_in_header))) return;
            std::memcpy(&header_, request_.data(), sizeof header_);
            answer(request_.data() + sizeof header_);
        }
    }

private:
    template <typename T>
    static T take(const char *body) {
        T value;
        std::memcpy(&value, body, sizeof value);
        return value;
    }

    void reply(int error, const void *data = nullptr, size_t size = 0) {
        fuse_out_header out{};
        out.unique = header_.unique;
        out.error = -error;
        out.len = static_cast<uint32_t>(sizeof out + size);
        iovec parts[] = {{&out, sizeof out}, {const_cast<void *>(data), size}};
        if (::writev(fuse_, parts, 2) == -1 && errno != ENOENT) std::perror("power: reply");
    }

    template <typename T>
    void replyWith(const T &value) {
        reply(0, &value, sizeof value);
    }

    fuse_attr attributes(uint64_t node) const {
        fuse_attr result{};
        result.ino = node;
        result.mode = node == rootNode ? S_IFDIR | 0700 : S_IFREG | 0600;
        result.size = node == rootNode ? 0 : content_.size();
        result.blocks = result.size / sectorSize;
        result.nlink = 1;
        result.blksize = 4096;
        return result;
    }

    void answer(const char *body) {
        constexpr uint64_t forEver = 1U << 30;
        switch (header_.opcode) {
            case FUSE_INIT: {
                fuse_init_out out{};
                out.major = FUSE_KERNEL_VERSION;
                out.minor = FUSE_KERNEL_MINOR_VERSION;
                out.max_readahead = take<fuse_init_in>(body).max_readahead;
                out.flags = FUSE_BIG_WRITES;
                out.max_write = 128 << 10;
                out.max_background = 16;
                return replyWith(out);
            }
            case FUSE_LOOKUP: {
                if (std::strcmp(body, "disk") != 0) return reply(ENOENT);
                fuse_entry_out out{};
                out.nodeid = diskNode;
                out.entry_valid = out.attr_valid = forEver;
                out.attr = attributes(diskNode);
                return replyWith(out);
            }
            case FUSE_GETATTR:
            case FUSE_SETATTR: {
                fuse_attr_out out{};
                out.attr_valid = forEver;
                out.attr = attributes(header_.nodeid);
                return replyWith(out);
            }
            case FUSE_OPEN:
            case FUSE_OPENDIR:
                return replyWith(fuse_open_out{});
            case FUSE_READ: {
                const auto in = take<fuse_read_in>(body);
                const uint64_t offset = std::min<uint64_t>(in.offset, content_.size());
                return reply(0, content_.data() + offset, std::min<size_t>(in.size, content_.size() - offset));
            }
            case FUSE_WRITE: {
                const auto in = take<fuse_write_in>(body);
                const char *const data = body + sizeof in;
                if (in.offset + in.size > content_.size()) return reply(ENOSPC);
                std::memcpy(content_.data() + in.offset, data, in.size);
                record(shared_, {Entry::write, in.size, in.offset, 0}, data);
                fuse_write_out out{};
                out.size = in.size;
                return replyWith(out);
            }
            case FUSE_FSYNC:
                record(shared_, {Entry::flush, 0, 0, 0}, nullptr);
                return reply(0);
            case FUSE_STATFS:
                return replyWith(fuse_statfs_out{});
            case FUSE_FLUSH:
            case FUSE_RELEASE:
            case FUSE_RELEASEDIR:
                return reply(0);
            case FUSE_FORGET:
            case FUSE_BATCH_FORGET:
            case FUSE_INTERRUPT:
                return;
            default:
                return reply(ENOSYS);
        }
    }

    int fuse_;
    std::vector<char> content_;
    Shared &shared_;
    std::vector<char> request_;
    fuse_in_header header_{};
};

// ---- Children, loop devices, mounts ----

pid_t child(const std::function<void()> &body) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == -1) refuse("fork");
    if (pid != 0) return pid;
    body();
    ::_exit(0);
}

int wait(pid_t pid) {
    int status = -1;
    while (::waitpid(pid, &status, 0) == -1 && errno == EINTR) continue;
    return status;
}

// Mounts the ext4 file system in `file` at `directory`; the loop device frees itself when it is unmounted.
bool mountFile(const std::string &file, const std::string &directory, const char *options) {
    const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    const int backing = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
    bool mounted = false;
    for (int attempt = 0; attempt < 50 && backing != -1; ++attempt) {
        const int number = ::ioctl(control, LOOP_CTL_GET_FREE);
        const std::string node = at("loop");  // of our own: the machine's nodes may be missing here
        ::unlink(node.c_str());
        if (number < 0 || ::mknod(node.c_str(), S_IFBLK | 0600, ::makedev(7, static_cast<unsigned int>(number))) == -1)
            break;
        const int loop = ::open(node.c_str(), O_RDWR | O_CLOEXEC);
        loop_config config{};
        config.fd = static_cast<uint32_t>(backing);
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
        if (loop != -1 && ::ioctl(loop, LOOP_CONFIGURE, &config) == 0) {
            mounted = ::mount(node.c_str(), directory.c_str(), "ext4", MS_NOATIME, options) == 0;
            const int error = errno;
            ::close(loop);
            errno = error;
            break;
        }
        const int error = errno;  // EBUSY: another program was faster
        if (loop != -1) ::close(loop);
        errno = error;
        if (error != EBUSY) break;
    }
    const int error = errno;
    if (backing != -1) ::close(backing);
    if (control != -1) ::close(control);
    errno = error;
    return mounted;
}

void unmount(const std::string &directory) {
    for (int attempt = 0; attempt < 200 && ::umount2(directory.c_str(), 0) == -1 && errno == EBUSY; ++attempt)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

std::vector<char> readWhole(const std::string &path) {
    std::vector<char> content;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::array<char, 65536> part;
    ssize_t got = 0;
    while (fd != -1 && (got = ::read(fd, part.data(), part.size())) > 0)
        content.insert(content.end(), part.data(), part.data() + got);
    if (fd != -1) ::close(fd);
    return content;
}

// ---- The writer ----

// A content tells its number in every line. Sizes from less than a block to many.
std::string contentOf(unsigned int number) {
    std::array<char, 32> line;
    std::snprintf(line.data(), line.size(), "content %06u\n", number);
    std::string text;
    for (unsigned int i = 0; i < 1 + number * 37 % 1500; ++i) text += line.data();
    return text;
}

bool force(const std::string &path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool done = fd != -1 && ::fsync(fd) == 0;
    if (fd != -1) ::close(fd);
    return done;
}

// Replaces the file and, one time in eight, does what the header says about more than that.
void writeContents(Shared &shared) {
    const std::string directory = at("disk"), path = directory + "/file";
    for (unsigned int number = 1; number <= generations; ++number) {
        const std::string text = contentOf(number);
        shared.begun.at(number) = shared.entries;
        if (write_file_atomic(path.c_str(), text.data(), text.size(), 0, 0) != 0) ::_exit(1);
        if (number % 8 == 0) {
            if (!force(path) || !force(directory)) ::_exit(1);
            shared.forced.at(number) = shared.entries;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
    }
}

// ---- The cuts ----

struct Counts {
    unsigned long cuts = 0, current = 0, older = 0, none = 0, empty = 0, mixed = 0, lost = 0, unmountable = 0,
                  leftovers = 0;  // temporary files after a cut, at most
};

class Cuts {
public:
    Cuts(const Shared &shared, std::vector<char> base, const char *options, unsigned int seed)
        : shared_(shared), base_(std::move(base)), options_(options), random_(seed) {}

    // Cuts after the first `position` entries.
    void cut(size_t position) {
        ++counts.cuts;
        makeImage(position);
        if (!mountFile(at("cut.image"), at("cut"), options_)) {
            std::printf("power: cut %zu: not mountable (%s)\n", position, std::strerror(errno));
            ++counts.unmountable;
            return;
        }
        judge(position);
        unmount(at("cut"));
    }

    Counts counts;

private:
    void apply(std::vector<char> &image, const Entry &entry, bool inPart) {
        for (size_t done = 0; done < entry.length; done += sectorSize) {
            if (inPart && random_() % 2 == 0) continue;
            const size_t size = std::min<size_t>(sectorSize, entry.length - done);
            std::memcpy(image.data() + entry.offset + done, shared_.bytes + entry.data + done, size);
        }
    }

    void makeImage(size_t position) {
        std::vector<char> image = base_;
        size_t flushed = position;
        while (flushed > 0 && shared_.log.at(flushed - 1).kind != Entry::flush) --flushed;
        const auto way = random_() % 4;  // what the medium does with what was not flushed
        for (size_t i = 0; i < position; ++i) {
            const Entry &entry = shared_.log.at(i);
            if (entry.kind != Entry::write) continue;
            const bool sure = i < flushed;
            const bool kept = sure || way == 0 || (way >= 2 && random_() % 2 == 0);
            const bool last = i + 1 == position;
            if (kept) apply(image, entry, !sure && way == 3 && last && entry.offset != superblock);
        }
        const int fd = ::open(at("cut.image").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd == -1 || ::write(fd, image.data(), image.size()) != static_cast<ssize_t>(image.size())) refuse("image");
        ::close(fd);
    }

    void finding(size_t position, const char *what, unsigned long &count) {
        if (++count <= 5) std::printf("power: cut %zu: %s\n", position, what);
    }

    void judge(size_t position) {
        unsigned int sure = 0, begun = 0;
        for (unsigned int number = 1; number <= generations; ++number) {
            if (shared_.begun.at(number) <= position) begun = number;
            if (shared_.forced.at(number) != 0 && shared_.forced.at(number) <= position) sure = number;
        }
        const std::string path = at("cut") + "/file";
        unsigned long leftovers = 0;
        for (const auto &entry : std::filesystem::directory_iterator(at("cut")))
            leftovers += entry.path().filename().string().starts_with("file_");
        counts.leftovers = std::max(counts.leftovers, leftovers);
        struct stat status {};
        if (::stat(path.c_str(), &status) == -1) {
            if (sure != 0) return finding(position, "the file is missing after fsync()", counts.lost);
            ++counts.none;
            return;
        }
        const std::vector<char> bytes = readWhole(path);
        if (bytes.empty()) return finding(position, "the file is empty", counts.empty);
        unsigned int number = 0;
        const std::string text(bytes.begin(), bytes.end());
        if (std::sscanf(text.c_str(), "content %6u", &number) != 1 || number > begun || text != contentOf(number))
            return finding(position, "the file is a mixture", counts.mixed);
        if (number < sure) return finding(position, "the file is older than the last fsync()", counts.lost);
        ++(number == begun ? counts.current : counts.older);
    }

    const Shared &shared_;
    std::vector<char> base_;
    const char *options_;
    std::mt19937 random_;
};

// ---- The run ----

void prepare() {
    if (::geteuid() != 0) errno = 0, refuse("this needs root");
    if (::access("/dev/fuse", R_OK | W_OK) == -1) refuse("/dev/fuse");
    if (::access("/dev/loop-control", R_OK | W_OK) == -1) refuse("/dev/loop-control");
    if (std::system("command -v mkfs.ext4 >/dev/null") != 0) refuse("mkfs.ext4 is not installed: package e2fsprogs");
    if (::unshare(CLONE_NEWNS) == -1 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == -1)
        refuse("a mount namespace");
    if (::mount("none", work, "tmpfs", 0, "size=256m") == -1) refuse("a tmpfs on /mnt");
    for (const char *name : {"fuse", "disk", "cut"}) ::mkdir(at(name).c_str(), 0700);
    const std::string make = "truncate -s " + std::to_string(diskSize) + " " + at("base") +
                             " && mkfs.ext4 -q -b 1024 -J size=4 -E lazy_itable_init=0,lazy_journal_init=0 " +
                             at("base");
    if (std::system(make.c_str()) != 0) refuse("mkfs.ext4");
}

// Returns the process that serves the disk.
pid_t startDisk(const std::vector<char> &base, Shared &shared) {
    const int fuse = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    const std::string options = "fd=" + std::to_string(fuse) + ",rootmode=40700,user_id=0,group_id=0";
    if (fuse == -1 || ::mount("disk", at("fuse").c_str(), "fuse", 0, options.c_str()) == -1) refuse("a FUSE mount");
    const pid_t pid = child([&] {
        // Serves to the end what the others leave, and holds none of their mounts itself.
        ::setsid();
        if (::unshare(CLONE_NEWNS) == -1 || ::umount2(work, MNT_DETACH) == -1) ::_exit(1);
        Disk(fuse, base, shared).serve();
    });
    ::close(fuse);
    return pid;
}

}  // namespace

int main(int argc, char **argv) {
    unsigned long rounds = 500;
    unsigned int seed = std::random_device()();
    const char *options = "";
    bool unordered = false;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const char *const value = i + 1 < argc ? argv[i + 1] : "";
        if (option == "--unordered") {
            unordered = true;
            continue;
        }
        if (option == "--rounds") rounds = std::strtoul(value, nullptr, 10);
        if (option == "--seed") seed = static_cast<unsigned int>(std::strtoul(value, nullptr, 10));
        if (option == "--options") options = value;
        ++i;
    }
    prepare();
    Shared &shared = *shareMemory();
    const std::vector<char> base = readWhole(at("base"));
    const pid_t disk = startDisk(base, shared);
    if (!mountFile(at("fuse") + "/disk", at("disk"), options)) refuse("mounting ext4");
    const pid_t writer = child([&] {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        writeContents(shared);
    });
    if (wait(writer) != 0) {
        std::puts("power: the writer failed");
        return 1;
    }
    const size_t entries = shared.entries;
    unmount(at("disk"));
    unmount(at("fuse"));
    wait(disk);
    if (shared.full) refuse("the record is too long");

    Cuts cuts(shared, base, options, seed);
    std::mt19937 random(seed);
    for (unsigned long round = 0; round < rounds; ++round) cuts.cut(random() % (entries + 1));
    const Counts &counts = cuts.counts;
    const unsigned long findings =
        counts.mixed * !unordered + counts.lost + counts.unmountable + counts.empty * !unordered;
    std::printf(
        "power: ext4 \"%s\", seed %u: %zu writes and flushes, %lu cuts: %lu times the content written last, %lu an "
        "older "
        "one, %lu no file yet, %lu empty, %lu mixed, %lu lost after fsync(), %lu not mountable, at most %lu temporary "
        "files left, %lu findings\n",
        options, seed, entries, counts.cuts, counts.current, counts.older, counts.none, counts.empty, counts.mixed,
        counts.lost, counts.unmountable, counts.leftovers, findings);
    return findings == 0 ? 0 : 1;
}
