// SPDX-License-Identifier: MIT
#include "support/resources.h"

#include <dirent.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vxtest {

std::vector<std::string> openDescriptors() {
    std::vector<std::string> found;
    DIR *dir = ::opendir("/proc/self/fd");
    if (dir == nullptr) throw std::runtime_error("no /proc/self/fd");
    while (const dirent *entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name[0] == '.' || name == std::to_string(::dirfd(dir))) continue;
        std::array<char, 4096> target{};
        const ssize_t length = ::readlink(("/proc/self/fd/" + name).c_str(), target.data(), target.size());
        found.push_back(name + " -> " + std::string(target.data(), length > 0 ? static_cast<size_t>(length) : 0));
    }
    ::closedir(dir);
    std::sort(found.begin(), found.end());
    return found;
}

int zombieChildren() {
    int zombies = 0;
    DIR *dir = ::opendir("/proc");
    if (dir == nullptr) throw std::runtime_error("no /proc");
    const std::string self = std::to_string(::getpid());
    while (const dirent *entry = ::readdir(dir)) {
        std::ifstream stat("/proc/" + std::string(entry->d_name) + "/stat");
        std::string line;
        if (!std::getline(stat, line)) continue;
        const size_t close = line.rfind(')');
        if (close == std::string::npos) continue;
        std::istringstream rest(line.substr(close + 1));
        std::string state;
        std::string parent;
        rest >> state >> parent;
        if (state == "Z" && parent == self) ++zombies;
    }
    ::closedir(dir);
    return zombies;
}

namespace {

constexpr size_t pieceSize = 2u << 20;
constexpr size_t pieces = 256;

void mapPiece(char *where, int fd) {
    const auto flags = MAP_FIXED | (fd == -1 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_SHARED);
    if (::mmap(where, pieceSize, PROT_READ | PROT_WRITE, flags, fd, 0) == MAP_FAILED) throw std::runtime_error("mmap");
}

}  // namespace

HugeText::HugeText() {
    void *map = ::mmap(nullptr, (pieces + 1) * pieceSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED) throw std::runtime_error("mmap");
    text_ = static_cast<char *>(map);
    const int fd = ::memfd_create("piece", MFD_CLOEXEC);
    if (fd == -1 || ::ftruncate(fd, pieceSize) == -1) throw std::runtime_error("memfd");
    for (size_t i = 0; i < pieces; ++i) mapPiece(text_ + i * pieceSize, fd);
    ::close(fd);
    mapPiece(text_ + pieces * pieceSize, -1);  // the terminator
    std::memset(text_, 'h', pieceSize);
}

HugeText::~HugeText() { ::munmap(text_, (pieces + 1) * pieceSize); }

GuardedBuffer::GuardedBuffer(size_t size) : size_(size) {
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    const size_t room = (size + page - 1) / page * page;
    mapped_ = room + 2 * page;
    void *map = ::mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED) throw std::runtime_error("mmap");
    map_ = static_cast<char *>(map);
    if (room > 0 && ::mprotect(map_ + page, room, PROT_READ | PROT_WRITE) == -1) throw std::runtime_error("mprotect");
    data_ = map_ + page + room - size;
}

GuardedBuffer::~GuardedBuffer() { ::munmap(map_, mapped_); }

}  // namespace vxtest
