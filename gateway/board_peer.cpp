// SPDX-License-Identifier: MIT
// board: stand-in for the board driver with its digital inputs, outputs and pulse counters.
//
// The driver's files answer writes with EEXIST and ENOENT, which no ordinary file does. The tree is therefore a file
// system of its own, served by this program over /dev/fuse in the kernel's own protocol: any program sees real files
// with the driver's answers, and neither a kernel module nor anything in the library is needed.
#include <dirent.h>
#include <fcntl.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/control.h"
#include "gateway/fuse_server.h"
#include "gateway/proc_cover.h"

namespace {

constexpr const char *help =
    "usage: board [--inputs N] [--outputs N] [--group GID]    serves /sys/devices/vantorix\n"
    "       board --prepare                     makes room for a board's files, then ends\n"
    "Stand-in for the board driver: inputs din1... and outputs dout1... (4 and 2 unless told otherwise). Files that "
    "can be\n"
    "written to belong to the group, which may write as well. Runs in a box only, since it covers /sys/devices.\n"
    "\n"
    "It prints \"ready\", then what programs do to the board:\n"
    "  out N = C           output N was set to the character C\n"
    "  counting N on|off   pulse counting of input N was started or stopped\n"
    "Lines on standard input steer it; each is confirmed with \"done\":\n"
    "  in N 0|1            set input N; a change to 1 is a pulse\n"
    "  pulse N COUNT       that many pulses more on input N\n"
    "  frequency N A B C   have input N count, with these three numbers\n"
    "  text PATH TEXT      have the file (din1/value, din1/frequency, dout1/value) read as TEXT\n"
    "  gone PATH           have no such file\n"
    "  refuse PATH ERRNO   fail writes to the file with this error number; 0 takes one byte only\n"
    "  unclosable PATH     fail closing the file\n"
    "  inputs N            have N inputs       outputs N   have N outputs\n"
    "  normal              forget text, gone, refuse and unclosable\n"
    "It ends with the end of its standard input.\n"
    "\n"
    "--prepare makes /proc/sysinfo, /sys/devices, /sys/bus and /sys/class/block writable directories, so that a\n"
    "board's identity, storage and converters can be laid out as plain files. What the real /proc and /sys/devices\n"
    "hold stays reachable through links.\n";

constexpr const char *devices = "/sys/devices";
constexpr const char *tree = "/sys/devices/vantorix";
constexpr size_t bufferSize = 65536;
constexpr unsigned int mostLines = 200;

[[noreturn]] void fail(const std::string &what) {
    std::fprintf(stderr, "board: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

void mountTmpfs(const std::string &path) {
    if (::mount("tmpfs", path.c_str(), "tmpfs", 0, "mode=0755") == -1) fail("tmpfs on " + path);
}

bool exists(const std::string &path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

// Names in a directory, without "." and "..".
std::vector<std::string> namesIn(const std::string &directory) {
    std::vector<std::string> names;
    DIR *const opened = ::opendir(directory.c_str());
    if (opened == nullptr) fail(directory);
    while (const dirent *entry = ::readdir(opened)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            names.emplace_back(entry->d_name);
        }
    }
    ::closedir(opened);
    return names;
}

// The kernel's own directory moves aside; one in memory takes its place and links to each of its entries.
void makeWritable(const std::string &path, const std::string &aside) {
    if (exists(aside)) return;
    if (::mkdir(aside.c_str(), 0555) == -1) fail(aside);
    if (::mount(path.c_str(), aside.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == -1) fail("bind " + path);
    const std::vector<std::string> names = namesIn(aside);
    mountTmpfs(path);
    for (const std::string &name : names) {
        const std::string entry = "/" + name;
        (void)!::symlink((aside + entry).c_str(), (path + entry).c_str());
    }
}

void makeDevicesWritable() { makeWritable(devices, "/.devices"); }

// Files of one line.
enum Kind : uint64_t { inputDir = 1, outputDir = 2, inputValue = 3, outputValue = 4, frequency = 5 };
constexpr uint64_t kindShift = 16;
constexpr uint64_t lineMask = 0xffff;

struct Line {
    char value = '0';
    bool counting = false;
    long long started = 0;
    long long lastPulse = 0;
    unsigned long pulses = 0;
};

// Deviations of one file, told on standard input.
struct Oddity {
    bool hasText = false;
    std::string text;
    bool gone = false;
    int refusal = -1;
    bool unclosable = false;
};

class Board {
public:
    Board(unsigned int inputs, unsigned int outputs, unsigned int group)
        : inputs_(inputs), outputs_(outputs), group_(group) {}

    void mountTree();
    void run();

private:
    // The tree.
    static std::string nameOf(uint64_t node);
    uint64_t childOf(uint64_t parent, const std::string &name) const;
    std::vector<std::string> children(uint64_t node) const;
    bool isDirectory(uint64_t node) const { return node == FUSE_ROOT_ID || node >> kindShift <= outputDir; }
    fuse_attr attributes(uint64_t node) const;
    std::string content(uint64_t node);
    int writeTo(uint64_t node, const std::string &text, size_t &taken);
    int writeFrequency(unsigned int number, const std::string &text);
    Oddity &oddity(uint64_t node) { return oddities_[nameOf(node)]; }
    Line &input(unsigned int number) { return inputLines_[number]; }
    void count(unsigned int number, unsigned long pulses);

    // The kernel's requests.
    bool serve();
    void reply(uint64_t unique, int error, const void *data = nullptr, size_t size = 0) const;
    void lookup(const fuse_in_header &header, const char *name);
    void open(const fuse_in_header &header);
    void readFile(const fuse_in_header &header, const fuse_read_in &in);
    void readDirectory(const fuse_in_header &header, const fuse_read_in &in) const;

    void control(const std::string &line);

    unsigned int inputs_;
    unsigned int outputs_;
    unsigned int group_;
    std::map<unsigned int, Line> inputLines_;
    std::map<unsigned int, Line> outputLines_;
    std::map<std::string, Oddity> oddities_;
    int fuse_ = -1;
    ControlInput input_;
    std::vector<char> buffer_ = std::vector<char>(bufferSize);
};

uint64_t nodeOf(Kind kind, unsigned int line) { return uint64_t{kind} << kindShift | line; }

std::string Board::nameOf(uint64_t node) {
    const std::string line = std::to_string(node & lineMask);
    switch (static_cast<Kind>(node >> kindShift)) {
        case inputDir:
            return "din" + line;
        case outputDir:
            return "dout" + line;
        case inputValue:
            return "din" + line + "/value";
        case outputValue:
            return "dout" + line + "/value";
        case frequency:
            return "din" + line + "/frequency";
    }
    return "";
}

uint64_t Board::childOf(uint64_t parent, const std::string &name) const {
    const auto line = static_cast<unsigned int>(parent & lineMask);
    uint64_t node = 0;
    if (parent == FUSE_ROOT_ID) {
        const bool in = name.rfind("din", 0) == 0;
        const unsigned long number = std::strtoul(name.c_str() + (in ? 3 : 4), nullptr, 10);
        if (number < 1 || number > (in ? inputs_ : outputs_)) return 0;
        node = nodeOf(in ? inputDir : outputDir, static_cast<unsigned int>(number));
        return nameOf(node) == name ? node : 0;
    }
    if (name == "value") node = nodeOf(parent >> kindShift == inputDir ? inputValue : outputValue, line);
    if (name == "frequency" && parent >> kindShift == inputDir) node = nodeOf(frequency, line);
    const auto odd = oddities_.find(nameOf(node));
    return odd != oddities_.end() && odd->second.gone ? 0 : node;
}

std::vector<std::string> Board::children(uint64_t node) const {
    std::vector<std::string> names{".", ".."};
    if (node == FUSE_ROOT_ID) {
        for (unsigned int i = 1; i <= inputs_; ++i) names.push_back("din" + std::to_string(i));
        for (unsigned int i = 1; i <= outputs_; ++i) names.push_back("dout" + std::to_string(i));
        return names;
    }
    names.emplace_back("value");
    if (node >> kindShift == inputDir) names.emplace_back("frequency");
    return names;
}

fuse_attr Board::attributes(uint64_t node) const {
    fuse_attr attr{};
    attr.ino = node;
    attr.nlink = 1;
    attr.blksize = 4096;
    const bool changeable = node >> kindShift == outputValue || node >> kindShift == frequency;
    attr.mode = isDirectory(node) ? S_IFDIR | 0755 : changeable ? S_IFREG | 0664 : S_IFREG | 0644;
    attr.gid = changeable ? group_ : 0;
    if (!isDirectory(node)) attr.size = 4096;  // as files of the kernel's own trees show
    return attr;
}

void Board::count(unsigned int number, unsigned long pulses) {
    Line &line = input(number);
    if (!line.counting) return;
    line.pulses += pulses;
    line.lastPulse = static_cast<long long>(::time(nullptr));
}

std::string Board::content(uint64_t node) {
    const Oddity &odd = oddity(node);
    if (odd.hasText) return odd.text;
    const auto number = static_cast<unsigned int>(node & lineMask);
    if (node >> kindShift == inputValue) return {input(number).value, '\n'};
    if (node >> kindShift == outputValue) return {outputLines_[number].value, '\n'};
    const Line &line = input(number);
    std::ostringstream text;
    text << (line.counting ? line.started : 0) << ' ' << (line.counting ? line.lastPulse : 0) << ' ' << line.pulses
         << '\n';
    return text.str();
}

int Board::writeFrequency(unsigned int number, const std::string &text) {
    Line &line = input(number);
    if (text == "-1") return line.counting ? EEXIST : 0;
    if (text != "0" && text != "1") return EINVAL;
    const bool start = text == "1";
    if (line.counting == start) return start ? EEXIST : ENOENT;
    line = Line{line.value, start, start ? static_cast<long long>(::time(nullptr)) : 0, 0, 0};
    std::printf("counting %u %s\n", number, start ? "on" : "off");
    return 0;
}

// 0, or the error number of the refusal.
int Board::writeTo(uint64_t node, const std::string &text, size_t &taken) {
    const int refusal = oddity(node).refusal;
    if (refusal > 0) return refusal;
    taken = refusal == 0 && !text.empty() ? text.size() - 1 : text.size();
    const auto number = static_cast<unsigned int>(node & lineMask);
    if (node >> kindShift == frequency) return refusal == 0 ? 0 : writeFrequency(number, text);
    if (node >> kindShift != outputValue) return EACCES;
    if (text.empty() || refusal == 0) return 0;
    outputLines_[number].value = text[0];
    std::printf("out %u = %c\n", number, text[0]);
    return 0;
}

void Board::mountTree() {
    ::umount2(tree, MNT_DETACH);  // of a board that was killed
    if (!exists(tree)) {
        if (::mkdir(tree, 0755) == -1) {
            makeDevicesWritable();
            if (::mkdir(tree, 0755) == -1) fail(tree);
        }
    }
    fuse_ = fuse::mount("board", tree);
    if (fuse_ == -1) fail("/dev/fuse");
}

void Board::reply(uint64_t unique, int error, const void *data, size_t size) const {
    fuse::reply(fuse_, unique, error, data, size);
}

void Board::lookup(const fuse_in_header &header, const char *name) {
    fuse_entry_out entry{};  // nothing is cached: the tree changes without the kernel's knowledge
    entry.nodeid = childOf(header.nodeid, name);
    if (entry.nodeid == 0) {
        reply(header.unique, ENOENT);
        return;
    }
    entry.attr = attributes(entry.nodeid);
    reply(header.unique, 0, &entry, sizeof entry);
}

void Board::open(const fuse_in_header &header) {
    fuse_open_out out{};
    out.open_flags = FOPEN_DIRECT_IO;
    reply(header.unique, 0, &out, sizeof out);
}

void Board::readFile(const fuse_in_header &header, const fuse_read_in &in) {
    const std::string text = content(header.nodeid);
    const size_t start = in.offset < text.size() ? static_cast<size_t>(in.offset) : text.size();
    const std::string piece = text.substr(start, in.size);
    reply(header.unique, 0, piece.data(), piece.size());
}

void Board::readDirectory(const fuse_in_header &header, const fuse_read_in &in) const {
    std::vector<char> list;
    const std::vector<std::string> names = children(header.nodeid);
    for (size_t i = static_cast<size_t>(in.offset); i < names.size(); ++i) {
        const bool directory = header.nodeid == FUSE_ROOT_ID || names[i][0] == '.';
        if (!fuse::append(list, in.size, i, i + 1, directory ? DT_DIR : DT_REG, names[i])) break;
    }
    reply(header.unique, 0, list.data(), list.size());
}

// Takes one request of the kernel; false when the tree has been unmounted.
bool Board::serve() {
    const ssize_t got = ::read(fuse_, buffer_.data(), buffer_.size());
    if (got == -1) return errno == EINTR || errno == EAGAIN || errno == ENOENT;
    fuse_in_header header{};
    std::memcpy(&header, buffer_.data(), sizeof header);
    const char *body = buffer_.data() + sizeof header;
    fuse_read_in read{};
    std::memcpy(&read, body, sizeof read);

    switch (header.opcode) {
        case FUSE_INIT:
            fuse::replyInit(fuse_, header.unique);
            break;
        case FUSE_LOOKUP:
            lookup(header, body);
            break;
        case FUSE_GETATTR:
        case FUSE_SETATTR: {
            fuse_attr_out out{};
            out.attr = attributes(header.nodeid);
            reply(header.unique, 0, &out, sizeof out);
            break;
        }
        case FUSE_OPEN:
        case FUSE_OPENDIR:
            open(header);
            break;
        case FUSE_READ:
            readFile(header, read);
            break;
        case FUSE_READDIR:
            readDirectory(header, read);
            break;
        case FUSE_WRITE: {
            fuse_write_in in{};
            std::memcpy(&in, body, sizeof in);
            size_t taken = 0;
            const int error = writeTo(header.nodeid, std::string(body + sizeof in, in.size), taken);
            const fuse_write_out out{static_cast<uint32_t>(taken), 0};
            if (error != 0) {
                reply(header.unique, error);
            } else {
                reply(header.unique, 0, &out, sizeof out);
            }
            break;
        }
        case FUSE_FLUSH:
            reply(header.unique, oddity(header.nodeid).unclosable ? EIO : 0);
            break;
        case FUSE_RELEASE:
        case FUSE_RELEASEDIR:
            reply(header.unique, 0);
            break;
        case FUSE_STATFS: {
            const fuse_statfs_out out{};
            reply(header.unique, 0, &out, sizeof out);
            break;
        }
        case FUSE_FORGET:
        case FUSE_BATCH_FORGET:
        case FUSE_INTERRUPT:
            break;
        default:
            reply(header.unique, ENOSYS);
    }
    return true;
}

void Board::control(const std::string &line) {
    std::istringstream words(line);
    std::string word;
    words >> word;
    if (word == "in") {
        unsigned int number = 0;
        char value = '0';
        words >> number >> value;
        if (input(number).value == '0' && value == '1') count(number, 1);
        input(number).value = value;
    } else if (word == "pulse") {
        unsigned int number = 0;
        unsigned long pulses = 0;
        words >> number >> pulses;
        count(number, pulses);
    } else if (word == "frequency") {
        unsigned int number = 0;
        Line line_;
        words >> number >> line_.started >> line_.lastPulse >> line_.pulses;
        line_.counting = true;
        line_.value = input(number).value;
        input(number) = line_;
    } else if (word == "text" || word == "gone" || word == "refuse" || word == "unclosable") {
        std::string path;
        words >> path;
        Oddity &odd = oddities_[path];
        if (word == "text") {
            odd.hasText = true;
            std::getline(words >> std::ws, odd.text);
        }
        if (word == "gone") odd.gone = true;
        if (word == "refuse") words >> odd.refusal;
        if (word == "unclosable") odd.unclosable = true;
    } else if (word == "inputs") {
        words >> inputs_;
    } else if (word == "outputs") {
        words >> outputs_;
    } else if (word == "normal") {
        oddities_.clear();
    } else if (word != "sync") {
        std::printf("unknown: %s\n", word.c_str());
    }
    std::puts("done");
}

void Board::run() {
    std::puts("ready");
    for (;;) {
        std::array<pollfd, 2> waiting{{{fuse_, POLLIN, 0}, {0, POLLIN, 0}}};
        if (::poll(waiting.data(), waiting.size(), -1) == -1) continue;
        if (waiting[0].revents != 0 && !serve()) return;
        if (waiting[1].revents != 0 && !input_.read([this](const std::string &line) { control(line); })) {
            break;
        }
    }
    ::umount2(tree, MNT_DETACH);
}

void prepare() {
    if (!coverProc()) fail(::access("/dev/fuse", R_OK | W_OK) == 0 ? "/proc" : "/dev/fuse");
    makeDevicesWritable();
    for (const char *path : {"/sys/bus", "/sys/class/block"}) mountTmpfs(path);
}

unsigned int countArgument(const char *text) {
    const unsigned long number = std::strtoul(text, nullptr, 10);
    return number > mostLines ? mostLines : static_cast<unsigned int>(number);
}

}  // namespace

int main(int argc, char **argv) {
    unsigned int inputs = 4;
    unsigned int outputs = 2;
    unsigned int group = 0;
    bool prepareOnly = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--prepare") {
            prepareOnly = true;
        } else if (option == "--inputs" && i + 1 < argc) {
            inputs = countArgument(argv[++i]);
        } else if (option == "--group" && i + 1 < argc) {
            group = static_cast<unsigned int>(std::strtoul(argv[++i], nullptr, 10));
        } else if (option == "--outputs" && i + 1 < argc) {
            outputs = countArgument(argv[++i]);
        } else {
            std::fputs(help, option == "--help" ? stdout : stderr);
            return option == "--help" ? 0 : 2;
        }
    }
    if (std::getenv("VXBOX") == nullptr) {
        std::fputs("board: covers parts of /sys and /proc, so it runs in a box only: vxbox board\n", stderr);
        return 1;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (prepareOnly) {
        prepare();
        return 0;
    }
    std::signal(SIGPIPE, SIG_IGN);
    Board board(inputs, outputs, group);
    board.mountTree();
    board.run();
    return 0;
}
