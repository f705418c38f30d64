// SPDX-License-Identifier: MIT
#include "gateway/core/board.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace vxgateway {

namespace {

namespace fs = std::filesystem;

const std::string blockDirectory = "/sys/class/block/";
const std::string soc = "../../devices/platform/soc/";
const std::string monitor = "/sys/bus/i2c/devices/0-0058/da9063-hwmon/hwmon/hwmon3/";
const std::string converter = "/sys/bus/iio/devices/iio:device0/";
constexpr const char *filler = "/.full";

[[noreturn]] void fail(const std::string &what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

void link(const std::string &target, const std::string &path) {
    ::unlink(path.c_str());
    if (::symlink(target.c_str(), path.c_str()) == -1) fail("link " + path);
}

bool isMounted(const std::string &place) {
    std::ifstream mounts("/proc/self/mounts");
    for (std::string device, where, rest; mounts >> device >> where && std::getline(mounts, rest);) {
        if (where == place) return true;
    }
    return false;
}

void mountMemory(const std::string &source, const std::string &place, const char *options) {
    fs::create_directories(place);
    if (!isMounted(place) && ::mount(source.c_str(), place.c_str(), "tmpfs", 0, options) == -1) fail("mount " + place);
}

void makeDirectory(const std::string &path, mode_t mode, unsigned int group = 0) {
    fs::create_directories(path);
    if (::chown(path.c_str(), 0, group) == -1 || ::chmod(path.c_str(), mode) == -1) fail(path);
}

void run(const std::vector<std::string> &command) {
    const pid_t pid = ::fork();
    if (pid == -1) fail("fork");
    if (pid == 0) {
        std::vector<char *> arguments;
        arguments.reserve(command.size() + 1);
        for (const std::string &word : command) arguments.push_back(const_cast<char *>(word.c_str()));
        arguments.push_back(nullptr);
        ::execv(arguments[0], arguments.data());
        ::_exit(127);
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) == -1 || status != 0) throw std::runtime_error(command[0] + " failed");
}

void makeScript(const std::string &name, const std::string &body) {
    const std::string path = "/usr/local/sbin/" + name;
    writeText(path, "#!/bin/sh\n" + body);
    if (::chmod(path.c_str(), 0755) == -1) fail(path);
}

const Disk &diskOf(const std::string &name) {
    const auto found =
        std::find_if(disks().begin(), disks().end(), [&](const Disk &disk) { return disk.name == name; });
    if (found == disks().end()) throw std::runtime_error("no disk " + name);
    return *found;
}

// Removes what an earlier run left in a directory that something may be mounted on.
void empty(const std::string &directory) {
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(directory, ignored)) fs::remove_all(entry.path(), ignored);
}

// The directory of the logs may be one of the user's that is kept: only what the gateway itself makes there is removed.
void removeOldLogs() {
    fs::create_directories(logDirectory);
    for (const char *name : {"config.log", "modem.log", "events.log", "board.log", "wan.log", "syslog.log", "sms.log",
                             "power.log", "record.json", "status"}) {
        fs::remove_all(std::string(logDirectory) + "/" + name);
    }
}

}  // namespace

const std::vector<Disk> &disks() {
    static const std::vector<Disk> all{{"data", "mmcblk0p4", "mmc_host/mmc0/mmcblk0/mmcblk0p4", "/data"},
                                       {"usb", "sda1", "usb1/1-1.2/host0/block/sda/sda1", "/media/usb"},
                                       {"sd", "mmcblk1p1", "mmc_host/mmc1/mmcblk1/mmcblk1p1", ""},
                                       {"log", "", "", "/var/log"},
                                       {"status", "", "", "/tmp/status"}};
    return all;
}

std::string readText(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeText(const std::string &path, const std::string &text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file) fail("write " + path);
}

unsigned int usableGroup(const char *name) {
    const group *found = ::getgrnam(name);
    if (found == nullptr) return 0;
    std::ifstream map("/proc/self/gid_map");
    for (unsigned long first = 0, outside = 0, count = 0; map >> first >> outside >> count;) {
        if (found->gr_gid >= first && found->gr_gid - first < count) return found->gr_gid;
    }
    return 0;
}

void installLibrary(const std::string &directory) {
    const auto isOurs = [](const std::string &name) {
        return name.rfind("libvxutils.so", 0) == 0 || name.rfind("libdevlog.so", 0) == 0;
    };
    for (const auto &entry : fs::directory_iterator(directory)) {
        const std::string name = entry.path().filename();
        const fs::path place = fs::path("/usr/lib") / name;
        if (!isOurs(name)) continue;
        fs::remove(place);
        fs::copy(entry.path(), place, fs::copy_options::copy_symlinks);
    }
    // The loader finds the machine's own copies first, so ours are mounted over them. A machine without ldconfig has no
    // list of them.
    if (::access("/sbin/ldconfig", X_OK) != 0) return;
    FILE *cache = ::popen("/sbin/ldconfig -p", "r");
    if (cache == nullptr) fail("ldconfig");
    std::array<char, 4096> line;
    while (std::fgets(line.data(), static_cast<int>(line.size()), cache) != nullptr) {
        std::istringstream words(line.data());
        std::string name;
        std::string path;
        words >> name;
        for (std::string word; words >> word;) path = word;
        const std::string here = "/usr/lib/" + name;
        if (!isOurs(name) || !fs::exists(here) || fs::equivalent(path, here)) continue;
        if (::mount(fs::canonical(here).c_str(), fs::canonical(path).c_str(), nullptr, MS_BIND, nullptr) == -1)
            fail("cover " + path);
    }
    ::pclose(cache);
}

void layOutBoard(const std::string &programs) {
    ::umask(022);
    removeOldLogs();
    for (const char *path : {"/var/run/wwanmd0", "/var/lib/configd/gateway-store"}) fs::remove_all(path);
    if (!fs::is_directory("/proc/sysinfo")) run({programs + "/board", "--prepare"});

    mountMemory("status", "/tmp/status", "size=4m,mode=1777");
    mountMemory("log", "/var/log", "size=4m,mode=0755");
    empty("/tmp/status");
    ::unlink("/var/log/qxlog");
    makeDirectory("/tmp/status", 01777);
    makeDirectory("/nvstatus", 01777);
    makeDirectory("/tmp/status/wwanmd/card0", 0755);
    makeDirectory("/var/run/wwanmd0", 0755);
    makeDirectory("/var/run/configd", 01777);  // each client has its socket there
    makeDirectory("/var/log", 0775, usableGroup("adm"));
    makeDirectory("/run/lock", 01777);
    makeDirectory("/var/spool/sms/incoming", 01777);

    for (const char *path :
         {"/proc/sysinfo/bd/0", "/proc/sysinfo/bd/1", "/proc/sysinfo/usbport0", "/proc/sysinfo/usbport1"}) {
        fs::create_directories(path);
    }
    fs::create_directories(monitor);
    fs::create_directories(converter);
    writeText("/proc/sysinfo/qxhw", "18\n");
    writeText("/proc/sysinfo/bd/0/prod_name", "310\n");
    writeText("/proc/sysinfo/bd/1/prod_variant", "0\n");
    writeText("/proc/sysinfo/usbport0/usbName", "1-1:1\n");
    writeText("/proc/sysinfo/usbport1/usbName", "1-1:2\n");
    link(soc + "mmc_host/mmc0/mmcblk0/mmcblk0p3", blockDirectory + "mmcblk0p3");  // internal memory
    for (const char *name : {"data", "sd", "usb"}) putDisk(name, true);
    setVoltage(1, 12100);
    setVoltage(2, 0);
    setConverter(906);
    writeText(converter + "in_voltage_scale", "0.000439453\n");

    fs::create_directories("/usr/local/sbin");
    for (const char *log : {"/sms.log", "/power.log"}) writeText(std::string(logDirectory) + log, "");
    const std::string gw = "'" + programs + "/gw'";
    makeScript("send-sms",
               "case $1 in /*) file=$1 ;; *) file=$PWD/$1 ;; esac\nexec " + gw + " deliver sms \"$file\"\n");
    for (const char *name : {"system-reboot", "system-poweroff"}) {
        makeScript(name, "exec " + gw + " deliver power \"" + name + " $*\"\n");
    }
}

void clearBoard() {
    for (const char *place : {"/tmp/status", "/var/log"}) ::umount2(place, MNT_DETACH);
}

bool diskPresent(const std::string &name) {
    const Disk &disk = diskOf(name);
    return disk.device[0] == '\0' || fs::is_symlink(blockDirectory + disk.device);
}

void putDisk(const std::string &name, bool present) {
    const Disk &disk = diskOf(name);
    const std::string whole = blockDirectory + "sda";
    if (present) {
        if (name == "usb") link(soc + "usb1/1-1.2/host0/block/sda", whole);
        link(soc + disk.link, blockDirectory + disk.device);
        if (disk.mountPoint[0] != '\0') mountMemory(std::string("/dev/") + disk.device, disk.mountPoint, "size=8m");
        return;
    }
    // As with a disk that is pulled out: who has files open there keeps them.
    if (disk.mountPoint[0] != '\0' && isMounted(disk.mountPoint)) ::umount2(disk.mountPoint, MNT_DETACH);
    if (name == "usb") ::unlink(whole.c_str());
    ::unlink((blockDirectory + disk.device).c_str());
}

bool diskFull(const std::string &name) { return fs::exists(diskOf(name).mountPoint + std::string(filler)); }

void fillDisk(const std::string &name, bool full) {
    const std::string path = diskOf(name).mountPoint + std::string(filler);
    if (!full) {
        ::unlink(path.c_str());
        return;
    }
    if (!diskPresent(name)) throw std::runtime_error("the disk is not in");
    // A program may have unmounted it; what is below is the machine's memory.
    if (!isMounted(diskOf(name).mountPoint)) throw std::runtime_error("the disk is not mounted");
    std::ofstream file(path, std::ios::binary | std::ios::app);
    const std::string piece(65536, '\0');
    while (file.write(piece.data(), static_cast<std::streamsize>(piece.size())).flush()) continue;
}

void setVoltage(int supply, long long millivolts) {
    writeText(monitor + "in" + std::to_string(supply) + "_input", std::to_string(millivolts) + "\n");
}

void setConverter(long long raw) { writeText(converter + "in_voltage0_raw", std::to_string(raw) + "\n"); }

void receiveSms(const std::string &number, const std::string &text) {
    static int count = 0;
    const std::string name = "gateway-" + std::to_string(++count);
    // A reader of the directory sees the whole message or none.
    const std::string fresh = "/var/spool/sms/." + name;
    writeText(fresh, "From: " + number + "\nReceived: now\n\n" + text + "\n");
    if (::chmod(fresh.c_str(), 0666) == -1 ||
        ::rename(fresh.c_str(), ("/var/spool/sms/incoming/" + name).c_str()) == -1)
        fail("sms");
}

}  // namespace vxgateway
