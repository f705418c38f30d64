// SPDX-License-Identifier: MIT
// What the board of the gateway is made of besides its inputs and outputs: identity, storage, converters, directories
// with the modes that the firmware gives them, and the scripts of the firmware.
#ifndef VXGATEWAY_BOARD_H
#define VXGATEWAY_BOARD_H

#include <string>
#include <vector>

namespace vxgateway {

// Where the peers' logs are, and what the gateway's scripts leave.
constexpr const char *logDirectory = "/tmp/gateway";
constexpr const char *controlSocket = "/run/vxgateway";
constexpr const char *scenarioDirectory = "/gateway/scenarios";

struct Disk {
    const char *name;
    const char *device;  // "" for one that is not a disk to the system
    const char *link;    // below ../../devices/platform/soc
    const char *mountPoint;
};
const std::vector<Disk> &disks();

// Below: std::runtime_error when it cannot be done.

// Programs find the library by the names that it has on a board, whatever the machine has installed.
void installLibrary(const std::string &directory);

// Lays everything out, as after a start of the board: nothing is left of what ran before.
void layOutBoard(const std::string &programs);

// Takes away what was mounted where programs keep files, for who goes on in the same box.
void clearBoard();

bool diskPresent(const std::string &name);
void putDisk(const std::string &name, bool present);
void fillDisk(const std::string &name, bool full);
bool diskFull(const std::string &name);
void setVoltage(int supply, long long millivolts);
void setConverter(long long raw);
void receiveSms(const std::string &number, const std::string &text);

std::string readText(const std::string &path);  // "" when it cannot be read
void writeText(const std::string &path, const std::string &text);

// Group `name` of this system when files can be given to it, else root's.
unsigned int usableGroup(const char *name);

}  // namespace vxgateway

#endif
