// SPDX-License-Identifier: MIT
#include "support/board.h"

#include <sys/mount.h>

#include <csignal>
#include <filesystem>
#include <stdexcept>

#include "support/files.h"

namespace vxtest {
namespace {

constexpr const char *devices = "/sys/devices";
constexpr const char *tree = "/sys/devices/vantorix";

}  // namespace

Board::Board(unsigned int inputs, unsigned int outputs)
    : process_({built("gateway/board"), "--inputs", std::to_string(inputs), "--outputs", std::to_string(outputs)}) {
    const std::string first = process_.readLine();
    if (first != "ready") throw std::runtime_error("board: " + first);
}

Board::~Board() { ::umount2(tree, MNT_DETACH); }

void Board::tell(const std::string &line) {
    process_.send(line + "\n");
    for (;;) {
        const std::string answer = process_.readLine();
        if (answer == "done") return;
        events_.push_back(answer);
    }
}

std::vector<std::string> Board::happened() {
    tell("sync");
    return std::exchange(events_, {});
}

void Board::kill() {
    process_.signal(SIGKILL);
    process_.wait();
}

void plainBoardTree() {
    removePlainBoardTree();
    std::error_code failure;
    if (!std::filesystem::create_directory(tree, failure)) {
        if (::mount("tmpfs", devices, "tmpfs", 0, "mode=0755") == -1) throw std::runtime_error("tmpfs on /sys/devices");
        std::filesystem::create_directory(tree);
    }
}

void removePlainBoardTree() {
    std::error_code failure;
    std::filesystem::remove_all(tree, failure);
}

void prepareBoardFiles() {
    static const bool prepared = run({built("gateway/board"), "--prepare"}).status == 0;
    if (!prepared) throw std::runtime_error("board --prepare");
}

}  // namespace vxtest
