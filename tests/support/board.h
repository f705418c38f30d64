// SPDX-License-Identifier: MIT
// The board driver's tree: its stand-in as a process, or plain files.
#pragma once

#include <string>
#include <vector>

#include "support/process.h"

namespace vxtest {

// The stand-in, serving /sys/devices/vantorix until it is destroyed.
class Board {
public:
    Board(unsigned int inputs, unsigned int outputs);
    ~Board();
    Board(const Board &) = delete;
    Board &operator=(const Board &) = delete;

    void tell(const std::string &line);   // one steering line, waited for
    std::vector<std::string> happened();  // what programs did to the board since the last call
    void kill();                          // as if the driver crashed: the tree stays and answers nothing

private:
    Process process_;
    std::vector<std::string> events_;
};

// An empty directory /sys/devices/vantorix for plain files; removed before it is made anew.
void plainBoardTree();
void removePlainBoardTree();

// Makes room for a board's files below /proc, /sys/bus, /sys/class/block: once for the life of the box.
void prepareBoardFiles();

}  // namespace vxtest
