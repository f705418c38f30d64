// SPDX-License-Identifier: MIT
// vx digest beside md5sum and sha1sum, and the published vectors of HMAC.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/files.h"
#include "support/vx.h"

namespace {

using testing::HasSubstr;
using vxtest::vx;
using vxtest::vxJson;
using vxtest::vxScript;
using vxtest::writeFile;

const std::string directory = "/tmp/digest";

class VxDigest : public testing::Test {
protected:
    VxDigest() {
        std::filesystem::remove_all(directory);
        writeFile(directory + "/empty", "");
        writeFile(directory + "/abc", "abc");
        writeFile(directory + "/big", std::string(1000003, 'z'));
        writeFile(directory + "/odd\\na\nme\r", "odd");
    }
    static vxtest::VxResult inDirectory(const std::string &script) {
        return vxScript("cd " + directory + " && " + script);
    }
};

TEST_F(VxDigest, PrintsWhatMd5sumAndSha1sumPrint) {
    for (const char *name : {"md5", "sha1"}) {
        const std::string tool = std::string(name) + "sum";
        EXPECT_EQ(inDirectory(std::string("vx digest ") + name + " *").out, inDirectory(tool + " *").out);
        EXPECT_EQ(inDirectory(std::string("vx digest ") + name + " <big").out, inDirectory(tool + " <big").out);
        EXPECT_EQ(inDirectory(std::string("vx digest ") + name + " - <abc").out, inDirectory(tool + " - <abc").out);
    }
    EXPECT_EQ(vxJson("digest-md5", {"digest", "md5", directory + "/abc"}),
              "[{\"file\":\"/tmp/digest/abc\",\"digest\":\"900150983cd24fb0d6963f7d28e17f72\"}]\n");
    vxJson("digest-sha1", {"digest", "sha1", directory + "/abc", directory + "/big"});
}

TEST_F(VxDigest, ChecksEachOthersLists) {
    for (const char *name : {"md5", "sha1"}) {
        const std::string tool = std::string(name) + "sum";
        const std::string own = std::string("vx digest ") + name;
        auto result = inDirectory(tool + " -- * >/tmp/list; " + own + " -c /tmp/list");
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_THAT(result.out, HasSubstr("abc: OK\nbig: OK\nempty: OK\n"));
        result = inDirectory(own + " -- * >/tmp/list; " + tool + " -c /tmp/list");
        EXPECT_EQ(result.status, 0) << result.err;
    }
}

TEST_F(VxDigest, TellsWhatDoesNotMatch) {
    auto result = inDirectory("vx digest sha1 abc big empty >list; echo more >>abc; rm big; vx digest sha1 -c list");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "abc: FAILED\nbig: FAILED open or read\nempty: OK\n");
    EXPECT_EQ(result.err, "vx: digest sha1: 2 of 3 files do not match or cannot be read\n");
    result = vx({"-j", "digest", "sha1", "--check", "list"}, {.directory = directory});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(vxtest::schemaErrors("digest-sha1", result.out), "");
    EXPECT_EQ(inDirectory("vx digest md5 -c list").err, "vx: digest md5: list: holds no digests of this kind\n");
    EXPECT_EQ(inDirectory("sed 's/^[^ ]*/\\U&/' list | vx digest sha1 -c - | tail -1").out, "empty: OK\n");
}

TEST_F(VxDigest, ChecksTheTaggedFormToo) {
    EXPECT_EQ(inDirectory("md5sum --tag abc empty | vx digest md5 -c").out, "abc: OK\nempty: OK\n");
    EXPECT_EQ(inDirectory("sha1sum --tag abc | vx digest sha1 -c").out, "abc: OK\n");
    EXPECT_EQ(inDirectory("touch $'line\\nfeed' 'a) = b'; md5sum --tag $'line\\nfeed' 'a) = b' | vx digest md5 -c").out,
              "line\\0012feed: OK\na) = b: OK\n");
    EXPECT_EQ(inDirectory("sha1sum --tag abc | vx digest md5 -c").status, 1);
    for (const char *line : {"MD5 (", "MD5 () = ", "MD5 (abc) = 12", ") = MD5 (", "MD5 (abc"}) {
        const auto result = vx({"digest", "md5", "-c"}, {.input = std::string(line) + "\n", .directory = directory});
        EXPECT_EQ(result.err, "vx: digest md5: -: holds no digests of this kind\n") << line;
    }
}

TEST_F(VxDigest, TellsOfLinesThatAreLeftOut) {
    const auto result = inDirectory("{ echo '# list'; md5sum abc; echo; } | vx digest md5 -c");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "abc: OK\n");
    EXPECT_EQ(result.err, "vx: digest md5: -: left out 2 lines that are not digests of this kind\n");
}

TEST_F(VxDigest, NoFileHasANameWithANulCharacter) {
    const auto result =
        inDirectory("md5sum abc >list; md5sum empty | sed 's/$/\\x00more/' >>list; vx digest md5 -c list");
    EXPECT_EQ(result.out, "abc: OK\n");
    EXPECT_EQ(result.err, "vx: digest md5: list: left out 1 lines that are not digests of this kind\n");
}

// A secret need not be on the disk, nor a list.
TEST_F(VxDigest, TakesKeysAndListsFromPipes) {
    writeFile(directory + "/key", "Jefe");
    EXPECT_EQ(inDirectory("vx digest hmac-md5 --key-file <(printf Jefe) abc").out,
              inDirectory("vx digest hmac-md5 --key-file key abc").out);
    EXPECT_EQ(inDirectory("vx digest md5 -c <(md5sum abc)").out, "abc: OK\n");
}

TEST_F(VxDigest, HmacTakesItsKeyFromAFile) {
    // RFC 2202, cases 2 and 6.
    writeFile(directory + "/key", "Jefe");
    writeFile(directory + "/data", "what do ya want for nothing?");
    EXPECT_EQ(inDirectory("vx digest hmac-md5 --key-file key data").out, "750c783e6ab0b503eaa86e310a5db738  data\n");
    EXPECT_EQ(inDirectory("vx digest hmac-sha1 --key-file key data").out,
              "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79  data\n");
    writeFile(directory + "/long", std::string(80, '\xaa'));
    writeFile(directory + "/data", "Test Using Larger Than Block-Size Key - Hash Key First");
    EXPECT_EQ(inDirectory("vx digest hmac-sha1 --key-file long data").out,
              "aa4ae5e15272d00e95705637ce8a3b55ed402112  data\n");
    EXPECT_EQ(inDirectory("vx digest hmac-md5 --key-file long data >list && vx digest --key-file long hmac-md5 -c list")
                  .status,
              0);
    EXPECT_EQ(inDirectory("vx digest hmac-md5 --key-file key -c list").status, 1);
    vxJson("digest-hmac-md5", {"digest", "hmac-md5", "--key-file", directory + "/key", directory + "/abc"});
    vxJson("digest-hmac-sha1", {"digest", "hmac-sha1", "--key-file", directory + "/key", directory + "/abc"});
}

TEST_F(VxDigest, FailuresPrintNothing) {
    for (const auto &words : {std::vector<std::string>{"md5", directory + "/abc", directory + "/none"},
                              {"md5", directory},
                              {"hmac-md5", "--key-file", directory + "/none", directory + "/abc"},
                              {"md5", "-c", directory + "/none"}}) {
        std::vector<std::string> all{"digest"};
        all.insert(all.end(), words.begin(), words.end());
        const auto result = vx(all);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err, "");
    }
    EXPECT_EQ(vx({"digest", "hmac-md5", directory + "/abc"}).status, 2);
    EXPECT_EQ(vx({"digest", "md5", "--key-file", directory + "/abc", directory + "/abc"}).status, 2);
    EXPECT_EQ(vx({"digest", "sha256", directory + "/abc"}).status, 2);
}

}  // namespace
