// SPDX-License-Identifier: MIT
// eval_command(): output that cannot be read to its end.
#include <vxutils/command.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>

#include "support/call_hooks.h"
#include "support/resources.h"

VXTEST_HOOK(ssize_t, read, (int fd, void *data, size_t size), (fd, data, size))

namespace {

namespace hooks = vxtest::hooks;

// A buffer whose pieces of 64 MiB are all the same memory.
class SameMemory {
public:
    explicit SameMemory(size_t size) : size_(size), data_(map(size, MAP_PRIVATE | MAP_NORESERVE)) {
        char *const memory = map(piece, MAP_SHARED);
        for (size_t at = 0; at < size; at += piece) {
            void *const again = ::mremap(memory, 0, piece, MREMAP_MAYMOVE | MREMAP_FIXED, data_ + at);
            EXPECT_EQ(again, data_ + at);
        }
        ::munmap(memory, piece);
    }
    ~SameMemory() { ::munmap(data_, size_); }
    SameMemory(const SameMemory &) = delete;
    SameMemory &operator=(const SameMemory &) = delete;

    [[nodiscard]] char *data() const { return data_; }
    [[nodiscard]] size_t size() const { return size_; }

private:
    static constexpr size_t piece = 64 << 20;

    static char *map(size_t size, int flags) {
        void *const mapped = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, flags | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(mapped, MAP_FAILED);
        return static_cast<char *>(mapped);
    }

    size_t size_;
    char *data_;
};

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

#if SIZE_MAX > UINT32_MAX  // elsewhere no buffer of that size fits into the address space
TEST(EvalCommandOutput, BeyondIntMaxIsCut) {
    constexpr size_t piece = 1022;
    constexpr size_t stored = INT_MAX - piece - 2;
    const SameMemory out(size_t{3} << 30);
    uint64_t left = out.size();
    const vxtest::Hooked endless(hooks::read, [&](int, void *data, size_t size) -> std::optional<ssize_t> {
        const size_t now = std::min<uint64_t>(size, left);
        left -= now;
        return std::memset(data, 'x', now) != nullptr ? static_cast<ssize_t>(now) : -1;
    });
    EXPECT_EQ(eval_command("true", out.data(), out.size()), (stored / piece + 1) * piece);
    EXPECT_EQ(left, 0) << "the command's output is read to its end";
    EXPECT_EQ(out.data()[stored - 1], 'x');
    EXPECT_EQ(out.data()[stored], '\0');
}
#endif

}  // namespace
