// SPDX-License-Identifier: MIT
// eval_command(): output that cannot be read to its end.
#include <vxutils/command.h>

#include <unistd.h>

#include <cerrno>

#include "support/call_hooks.h"
#include "support/resources.h"

VXTEST_HOOK(ssize_t, read, (int fd, void *data, size_t size), (fd, data, size))

namespace {

namespace hooks = vxtest::hooks;

TEST(EvalCommandOutput, ThatCannotBeReadToItsEndIsAFailureThoughTheCommandSucceeds) {
    const vxtest::NoLeaks leaks;
    char out[64];
    for (const int pieces : {0, 1}) {
        const vxtest::Hooked broken(hooks::read, vxtest::failingWith(EIO, pieces));
        EXPECT_EQ(eval_command("echo text", out, sizeof out), -1);
        EXPECT_STREQ(out, pieces == 0 ? "" : "text\n");
    }
    EXPECT_EQ(eval_command("echo text", out, sizeof out), 5);
}

TEST(EvalCommandOutput, IsReadOnThroughSignals) {
    int interruptions = 0;
    const vxtest::Hooked interrupted(hooks::read, [&](const auto &...) -> std::optional<ssize_t> {
        if (++interruptions % 2 == 0) return std::nullopt;
        errno = EINTR;
        return -1;
    });
    char out[64];
    EXPECT_EQ(eval_command("echo text", out, sizeof out), 5);
    EXPECT_STREQ(out, "text\n");
    EXPECT_GT(interruptions, 2);
}

}  // namespace
