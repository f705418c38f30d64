// SPDX-License-Identifier: MIT
// vx io, adc, board and storage on the stand-in of the board driver and on the board's files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "support/board.h"
#include "support/files.h"
#include "support/vx.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::MatchesRegex;
using vxtest::Board;
using vxtest::Process;
using vxtest::vx;
using vxtest::vxCommand;
using vxtest::vxJson;
using vxtest::writeFile;

// ---- io

TEST(VxIo, ListsAndReadsInputsAndOutputs) {
    Board board(4, 2);
    board.tell("in 2 1");
    EXPECT_EQ(vx({"io", "list"}).out, "din1=0\ndin2=1\ndin3=0\ndin4=0\ndout1=0\ndout2=0\n");
    EXPECT_EQ(vx({"io", "get", "din2"}).out, "1\n");
    EXPECT_EQ(vx({"io", "get", "2", "dout1"}).out, "din2=1\ndout1=0\n");
    EXPECT_EQ(vx({"io", "count"}).out, "inputs=4\noutputs=2\n");
    EXPECT_EQ(vxJson("io-count", {"io", "count"}), "{\"inputs\":4,\"outputs\":2}\n");
    EXPECT_EQ(vxJson("io-get", {"io", "get", "din2", "dout2"}),
              R"([{"line":"din2","value":1},{"line":"dout2","value":0}])"
              "\n");
    vxJson("io-list", {"io", "list"});
}

TEST(VxIo, SetsOutputsInTheOrderGiven) {
    Board board(1, 3);
    board.happened();
    EXPECT_EQ(vx({"io", "set", "dout2=1", "1=1", "dout2=0"}).status, 0);
    EXPECT_THAT(board.happened(), testing::ElementsAre("out 2 = 1", "out 1 = 1", "out 2 = 0"));
    vxJson("io-set", {"io", "set", "dout3=1"});
    EXPECT_EQ(vx({"io", "get", "dout3"}).out, "1\n");
}

TEST(VxIo, WrongArgumentsTouchNothing) {
    Board board(2, 2);
    board.happened();
    for (const auto &words : {std::vector<std::string>{"set", "dout1=1", "dout2=2"},
                              {"set", "dout1"},
                              {"set", "din1=1"},
                              {"set", "dout1=1", "dout100=1"},
                              {"set", "dout0=1"},
                              {"set", "dout1="},
                              {"get"},
                              {"get", "x"},
                              {"get", "din"},
                              {"get", "din-1"},
                              {"get", "din1x"},
                              {"get", ""},
                              {"frequency", "dout1"},
                              {"frequency"},
                              {"frequency", "1", "--start", "--stop"},
                              {"watch", "--interval", "0"}}) {
        std::vector<std::string> all{"io"};
        all.insert(all.end(), words.begin(), words.end());
        EXPECT_EQ(vx(all).status, 2) << words.back();
    }
    EXPECT_TRUE(board.happened().empty());
}

TEST(VxIo, FailuresOfTheDriverAreNamed) {
    Board board(2, 2);
    EXPECT_EQ(vx({"io", "get", "din3"}).err, "vx: io get: din3: the board has no such line\n");
    EXPECT_EQ(vx({"io", "set", "dout9=1"}).err, "vx: io set: dout9: the board has no such line\n");
    board.tell("text din1/value x");
    EXPECT_EQ(vx({"io", "get", "din1", "din2"}).err,
              "vx: io get: din1: the driver's file does not hold what it should\n");
    EXPECT_EQ(vx({"io", "list"}).out, "");
    board.tell("refuse dout1/value 5");
    EXPECT_EQ(vx({"io", "set", "dout1=1"}).err, "vx: io set: dout1: Input/output error\n");
}

TEST(VxIo, AMachineWithoutTheDriverHasNoLines) {
    vxtest::removePlainBoardTree();  // of another test
    EXPECT_EQ(vx({"io", "list"}).err, "vx: io list: /sys/devices/vantorix: No such file or directory\n");
    EXPECT_EQ(vx({"io", "get", "1"}).status, 1);
    EXPECT_EQ(vx({"io", "count"}).out, "inputs=0\noutputs=0\n");
}

TEST(VxIo, FrequencyStartsReadsAndStops) {
    Board board(2, 1);
    EXPECT_EQ(vx({"io", "frequency", "1"}).err, "vx: io frequency: din1: pulse counting is not running\n");
    vxJson("io-frequency", {"io", "frequency", "din1", "--start"});
    EXPECT_EQ(vx({"io", "frequency", "1", "--start"}).err,
              "vx: io frequency: din1: pulse counting is running already\n");
    board.tell("frequency 1 123456789012 -5 4294967295");
    EXPECT_EQ(vx({"io", "frequency", "1"}).out, "line=din1\nfirst=123456789012\nsecond=-5\nnumber=4294967295\n");
    EXPECT_EQ(vxJson("io-frequency", {"io", "frequency", "1"}),
              R"({"line":"din1","first":123456789012,"second":-5,"number":4294967295})"
              "\n");
    EXPECT_EQ(vx({"io", "frequency", "1", "--stop"}).status, 0);
    EXPECT_EQ(vx({"io", "frequency", "1", "--stop"}).status, 1);
}

TEST(VxIo, WatchSaysHowItLooksAndPrintsEachChange) {
    Board board(2, 1);
    Process watch(vxCommand({"io", "watch", "--interval", "10"}));
    EXPECT_THAT(watch.readLine(),
                MatchesRegex("vx: io watch: the driver tells of no changes: 2 lines are read every 10 ms, "
                             "which takes [0-9.]* ms of processor time \\([0-9.]* %\\); .*"));
    EXPECT_EQ(watch.readLine(), "din1=0");
    EXPECT_EQ(watch.readLine(), "din2=0");
    board.tell("in 2 1");
    EXPECT_EQ(watch.readLine(), "din2=1");
    board.tell("in 2 0");
    EXPECT_EQ(watch.readLine(), "din2=0");
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
}

TEST(VxIo, WatchPrintsJsonLines) {
    Board board(1, 1);
    Process watch(vxCommand({"-jq", "io", "watch", "dout1", "--count=2"}));
    std::string line = watch.readLine();
    EXPECT_EQ(line, R"({"line":"dout1","value":0})");
    EXPECT_EQ(vxtest::schemaErrors("io-watch", line + "\n"), "");
    EXPECT_EQ(vx({"io", "set", "1=1"}).status, 0);
    EXPECT_EQ(watch.readLine(), R"({"line":"dout1","value":1})");
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_EQ(vx({"-q", "io", "watch", "--for", "0.05"}).out, "0\n");
    EXPECT_THAT(vx({"io", "watch", "1", "--for=0"}).err, HasSubstr(": 1 line is read every 100 ms"));
}

TEST(VxIo, WatchEndsWithAFailureWhenTheLineGoes) {
    Board board(2, 1);
    Process watch(vxCommand({"-q", "io", "watch", "din2", "--interval", "10"}));
    EXPECT_EQ(watch.readLine(), "0");
    board.tell("gone din2/value");
    EXPECT_EQ(watch.wait(), 1);
}

// ---- board, adc, storage

const std::string block = "/sys/class/block";
const std::string monitor = "/sys/bus/i2c/devices/0-0058/da9063-hwmon/hwmon/hwmon3";
const std::string converter = "/sys/bus/iio/devices/iio:device0";

class VxBoard : public testing::Test {
protected:
    VxBoard() {
        vxtest::prepareBoardFiles();
        for (const char *path :
             {"/proc/sysinfo", "/etc/oem", "/tmp/progress", "/sys/bus/iio/devices", "/sys/bus/i2c/devices"}) {
            fs::remove_all(path);
        }
        for (const auto &entry : fs::directory_iterator(block)) fs::remove_all(entry);
    }
};

TEST_F(VxBoard, PrintsWhatTheBoardIs) {
    EXPECT_EQ(vx({"board"}).err, "vx: board: /proc/sysinfo: no board data on this machine\n");
    vxtest::makeDirs("/proc/sysinfo");
    EXPECT_EQ(vx({"board"}).out, "product=QX\ngeneration=\nextension=\npoe=0\nsim_holder=0\nmaintenance=0\n");
    vxJson("board", {"board"});
    writeFile("/proc/sysinfo/qxhw", "18\n");
    writeFile("/proc/sysinfo/bd/0/prod_name", "310\n");
    writeFile("/proc/sysinfo/bd/1/prod_variant", "0\n");
    writeFile("/tmp/progress/config", "");
    EXPECT_EQ(vx({"board"}).out, "product=QX310\ngeneration=18\nextension=0\npoe=1\nsim_holder=0\nmaintenance=1\n");
    EXPECT_EQ(vxJson("board", {"board"}),
              R"({"product":"QX310","generation":18,"extension":0,"poe":true,"sim_holder":false,"maintenance":true})"
              "\n");
}

TEST_F(VxBoard, PrintsValuesOfTheRebrandingFile) {
    EXPECT_EQ(vx({"board", "--oem", "Vendor"}).err, "vx: board: /etc/oem/oem.conf: No such file or directory\n");
    writeFile("/etc/oem/oem.conf", "Vendor=  Example\n");
    EXPECT_EQ(vx({"board", "--oem", "Vendor"}).out, "Example\n");
    EXPECT_EQ(vxJson("board", {"board", "--oem=Vendor"}), R"({"key":"Vendor","value":"Example"})"
                                                          "\n");
    EXPECT_EQ(vx({"board", "--oem", "None"}).status, 1);
    EXPECT_EQ(vx({"board", "--oem", ""}).err, "vx: board: '': not in /etc/oem/oem.conf\n");
    fs::remove("/etc/oem/oem.conf");
    ::mkfifo("/etc/oem/oem.conf", 0644);
    EXPECT_EQ(vx({"board", "--oem", "Vendor"}, {.alarm_s = 20}).err, "vx: board: /etc/oem/oem.conf: is a FIFO\n");
    fs::remove("/etc/oem/oem.conf");
    EXPECT_EQ(vx({"board", "x"}).status, 2);
}

TEST_F(VxBoard, ReadsConvertersOfEachBoardType) {
    EXPECT_EQ(vx({"adc"}).err, "vx: adc: the board has no converter\n");
    EXPECT_EQ(vx({"adc", "1"}).err, "vx: adc: 1: no converter\n");
    writeFile(monitor + "/in1_input", "12100\n");
    writeFile(converter + "/in_voltage0_raw", "906\n");
    writeFile(converter + "/in_voltage_scale", "0.000439453\n");
    EXPECT_EQ(vx({"adc", "1"}).out, "12.100\n");
    EXPECT_EQ(vx({"adc", "0"}).out, "12.095\n");
    EXPECT_EQ(vx({"adc"}).out, "0=12.095\n1=12.100\n");
    EXPECT_EQ(vxJson("adc", {"adc", "1"}), R"({"input":1,"volts":12.1,"board":"delta"})"
                                           "\n");
    vxJson("adc", {"adc"});
    EXPECT_EQ(vx({"adc", "0", "--board", "beta"}).out, "25876.266\n");
    EXPECT_EQ(vx({"adc", "0", "--board", "gamma", "--factor", "0.5"}).out, "453.000\n");
    EXPECT_EQ(vx({"adc", "2", "--board", "delta"}).status, 1);
    const auto beyond = vx({"-j", "adc", "0", "--board", "gamma", "--factor", "3e38"});
    EXPECT_EQ(beyond.status, 1);
    EXPECT_EQ(beyond.out, "");
    EXPECT_EQ(beyond.err, "vx: adc: 0: the voltage is beyond the range of numbers\n");
    for (const auto &words : {std::vector<std::string>{"x"},
                              {"-1"},
                              {"16"},
                              {"1", "--board", "omega"},
                              {"1", "--board="},
                              {"1", "--factor", "1x"},
                              {"1", "--factor", "nan"},
                              {"1", "2"}}) {
        std::vector<std::string> all{"adc"};
        all.insert(all.end(), words.begin(), words.end());
        EXPECT_EQ(vx(all).status, 2) << words.back();
    }
}

TEST_F(VxBoard, ListsStorageWithFreeSpace) {
    EXPECT_EQ(vx({"storage"}).out, "");
    EXPECT_EQ(vxJson("storage", {"storage"}), "[]\n");
    writeFile("/proc/sysinfo/usbport1/usbName", "1-1:2\n");
    fs::create_symlink("../../devices/soc/usb1/1-1.2/block/sda", block + "/sda");
    fs::create_symlink("../../devices/soc/usb1/1-1.2/block/sda/sda1", block + "/sda1");
    fs::create_symlink("../../devices/soc/mmc_host/mmc0/mmcblk0p3", block + "/mmcblk0p3");
    EXPECT_EQ(vx({"storage"}).out,
              "mmcblk0p3 device=mmcblk0 type=internal index=0 mount= size= total= free=\n"
              "sda1 device=sda type=usb index=1 mount= size= total= free=\n");
    vxtest::makeDirs("/media/usb disk");
    if (::mount("/dev/sda1", "/media/usb disk", "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "no mount in this box";
    EXPECT_THAT(vx({"storage"}).out, HasSubstr(" mount=/media/usb\\0040disk size="));
    EXPECT_EQ(vx({"storage", "sda1"}).out,
              "partition=sda1\ndevice=sda\ntype=usb\nindex=1\nmount=/media/usb disk\nsize=\ntotal=65536\nfree=65536\n");
    ::umount("/media/usb disk");
    vxtest::makeDirs("/media/usb");
    ASSERT_EQ(::mount("/dev/sda1", "/media/usb", "tmpfs", 0, "size=64k"), 0);
    EXPECT_THAT(vx({"storage"}).out,
                HasSubstr("sda1 device=sda type=usb index=1 mount=/media/usb size= total=65536 free=65536\n"));
    vxJson("storage", {"storage"});
    EXPECT_THAT(vxJson("storage", {"storage", "sda1"}), HasSubstr(R"("size":null,"total":65536,"free":65536})"));
    ::umount("/media/usb");
    EXPECT_EQ(vx({"storage", "sdb1"}).err, "vx: storage: sdb1: no such storage device\n");
}

}  // namespace
