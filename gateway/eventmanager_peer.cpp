// SPDX-License-Identifier: MIT
// eventmanager: the gateway's event manager at its FIFO.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/vxevent.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr const char *help =
    "usage: eventmanager [--help]\n"
    "\n"
    "Makes the FIFO /tmp/status/event-manager/throw, says \"ready\", and prints every event that is thrown into it:\n"
    "    event id=ID param=PARAM text=\"TEXT\"\n"
    "Lines on standard input steer it while it runs; each is answered by its own word:\n"
    "    hold     keep the FIFO open and stop reading it, until \"resume\"\n"
    "    resume   read again\n"
    "    away     close the FIFO and stop reading it, as a manager that has ended\n"
    "    remove   remove the FIFO's name\n"
    "    make     make the FIFO anew and read it\n"
    "    count    answered by \"count N\": events so far\n"
    "    quit     end, as does the end of the input\n";

const std::string directory = "/tmp/status/event-manager";
const std::string fifoPath = directory + "/throw";

class Manager {
public:
    ~Manager() { away(); }

    bool make() {
        away();
        ::mkdir("/tmp/status", 0755);
        ::mkdir(directory.c_str(), 0755);
        if (::mkfifo(fifoPath.c_str(), 0622) == -1 && errno != EEXIST) return false;
        ::chmod(fifoPath.c_str(), 0622);
        // For writing too, so that it does not end whenever the last writer leaves.
        fd_ = ::open(fifoPath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        return resume();
    }
    bool resume() {
        reading_ = fd_ != -1;
        return reading_;
    }
    void hold() { reading_ = false; }
    void away() {
        if (fd_ != -1) ::close(fd_);
        fd_ = -1;
        reading_ = false;
    }
    int watched() const { return reading_ ? fd_ : -1; }
    unsigned long count() const { return count_; }

    void readEvents() {
        vxevent_record record;
        for (;;) {
            const ssize_t got = ::read(fd_, &record, sizeof record);
            if (got == -1) return;
            if (got != static_cast<ssize_t>(sizeof record)) {
                std::printf("garbage of %zd bytes\n", got);
                continue;
            }
            print(record);
        }
    }

private:
    void print(const vxevent_record &record) {
        ++count_;
        const bool ends = std::memchr(record.text, '\0', sizeof record.text) != nullptr;
        std::printf("event id=%u param=%u text=\"%.*s\"%s\n", record.id, record.param, int{sizeof record.text},
                    record.text, ends ? "" : " (not terminated)");
    }

    int fd_ = -1;
    bool reading_ = false;
    unsigned long count_ = 0;
};

// False when it is time to go.
bool obey(Manager &manager, std::string_view order) {
    if (order == "quit") return false;
    if (order == "hold") {
        manager.hold();
    } else if (order == "resume") {
        manager.resume();
    } else if (order == "away") {
        manager.away();
    } else if (order == "remove") {
        ::unlink(fifoPath.c_str());
    } else if (order == "make") {
        if (!manager.make()) std::perror(fifoPath.c_str());
    } else if (order == "count") {
        std::printf("count %lu\n", manager.count());
        return true;
    } else {
        std::printf("unknown order; --help lists them\n");
        return true;
    }
    std::printf("%.*s\n", static_cast<int>(order.size()), order.data());
    return true;
}

// Standard input in lines, read without hiding bytes from poll().
class Orders {
public:
    bool read(Manager &manager) {
        std::array<char, 512> piece;
        const ssize_t got = ::read(0, piece.data(), piece.size());
        if (got <= 0) return false;
        text_.append(piece.data(), static_cast<size_t>(got));
        for (size_t end = text_.find('\n'); end != std::string::npos; end = text_.find('\n')) {
            const std::string line = text_.substr(0, end);
            text_.erase(0, end + 1);
            if (!obey(manager, line)) return false;
        }
        return true;
    }

private:
    std::string text_;
};

}  // namespace

int main(int argc, char **argv) {
    if (argc > 1) {
        const bool asked = std::strcmp(argv[1], "--help") == 0;
        std::fputs(help, asked ? stdout : stderr);
        return asked ? 0 : 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Manager manager;
    if (!manager.make()) {
        std::perror(fifoPath.c_str());
        return 1;
    }
    std::puts("ready");
    Orders orders;
    for (;;) {
        std::array<pollfd, 2> waiting{{{0, POLLIN, 0}, {manager.watched(), POLLIN, 0}}};
        if (::poll(waiting.data(), waiting.size(), -1) == -1) continue;
        if ((waiting[1].revents & POLLIN) != 0) manager.readEvents();
        if (waiting[0].revents != 0 && !orders.read(manager)) return 0;
    }
}
