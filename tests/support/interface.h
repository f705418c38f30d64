// SPDX-License-Identifier: MIT
// What the tests of interface names share: an empty status tree of WAN links, and a bridge tool that prints a test's text.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vxutils/interface.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <string>
#include <system_error>

#include "support/files.h"
#include "support/resources.h"

namespace vxtest::interfaces {

class WanLink : public testing::Test {
protected:
    void SetUp() override { std::filesystem::remove_all("/tmp/status/link-manager"); }
    const NoLeaks noLeaks;
};

inline constexpr const char *tool = "/usr/sbin/brctl";

// The machine's own bridge tool, put aside before a test puts its own in its place.
inline constexpr const char *realTool = "/tmp/real-brctl";
inline bool haveRealTool() {
    static const bool have = [] {
        std::error_code error;
        return std::filesystem::copy_file(tool, realTool, error);
    }();
    return have;
}

// A bridge tool that prints this.
inline void toolPrints(const std::string &text, int status = 0) {
    haveRealTool();
    writeFile("/tmp/brctl-output", text);
    std::filesystem::remove(tool);
    writeFile(tool, "#!/bin/sh\n[ \"$*\" = show ] || exit 9\ncat /tmp/brctl-output\necho noise >&2\nexit " +
                        std::to_string(status) + "\n");
    ::chmod(tool, 0755);
}

struct Members {
    int result;
    std::string text;
    bool operator==(const Members &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const Members &members) {
    return out << members.result << " \"" << members.text << '"';
}

inline Members membersOf(const char *bridge, size_t size = 256) {
    GuardedBuffer buffer(size);
    std::memset(buffer.data(), 'u', size);
    const int result = bridge_members(bridge, buffer.data(), size);
    return {result, buffer.data()};
}

inline const std::string heading = "bridge name\tbridge id\t\tSTP enabled\tinterfaces\n";
inline const std::string table = heading +
                                 "br0\t\t8000.02005e100001\tno\t\teth0\n"
                                 "\t\t\t\t\t\t\teth1\n"
                                 "\t\t\t\t\t\t\twlan0-0\n"
                                 "br1\t\t8000.02005e100002\tyes\t\teth2\n"
                                 "br2\t\t8000.000000000000\tno\t\t\n"
                                 "br3\t\t8000.02005e100003\tno\t\teth3\n"
                                 "\t\t\t\t\t\t\teth4\n";

}  // namespace vxtest::interfaces
