// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <vxutils/version.h>

#include <string>

namespace {

TEST(Version, HeadersAndLibraryOfOneBuildAgree) {
    EXPECT_STREQ(vxutils_version(), VXUTILS_VERSION_STRING);
    EXPECT_EQ(std::string(VXUTILS_VERSION_STRING), std::to_string(VXUTILS_VERSION_MAJOR) + "." +
                                                       std::to_string(VXUTILS_VERSION_MINOR) + "." +
                                                       std::to_string(VXUTILS_VERSION_PATCH));
}

TEST(Version, ComparesByTheMostSignificantNumberThatDiffers) {
    constexpr int major = VXUTILS_VERSION_MAJOR;
    constexpr int minor = VXUTILS_VERSION_MINOR;
    constexpr int patch = VXUTILS_VERSION_PATCH;
    EXPECT_TRUE(VXUTILS_VERSION_AT_LEAST(major, minor, patch));
    EXPECT_FALSE(VXUTILS_VERSION_AT_LEAST(major, minor, patch + 1));
    EXPECT_FALSE(VXUTILS_VERSION_AT_LEAST(major, minor + 1, 0));
    EXPECT_FALSE(VXUTILS_VERSION_AT_LEAST(major + 1, 0, 0));
    EXPECT_TRUE(VXUTILS_VERSION_AT_LEAST(major - 1, 999, 999));
    EXPECT_TRUE(VXUTILS_VERSION_AT_LEAST(0, 0, 0));
}

#if !VXUTILS_VERSION_AT_LEAST(1, 0, 0) || VXUTILS_VERSION_AT_LEAST(999, 0, 0)
#error "the macro is for the preprocessor too"
#endif

}  // namespace
