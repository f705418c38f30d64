// SPDX-License-Identifier: MIT
#include <vxutils/hardware.h>

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>

#include "support/board.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

const std::string oemPath = "/etc/oem/oem.conf";

class Hardware : public testing::Test {
protected:
    Hardware() {
        vxtest::prepareBoardFiles();
        std::filesystem::remove_all("/proc/sysinfo");
        std::filesystem::remove_all("/tmp/progress");
        std::filesystem::remove_all("/etc/oem");
        std::filesystem::remove("/dev/sim");
    }
    ~Hardware() override { EXPECT_TRUE(log.take().empty()); }

    static void sysinfo(const std::string &name, const std::string &text) {
        vxtest::writeFile("/proc/sysinfo/" + name, text);
    }

    vxtest::SyslogCapture log;
};

// The generation is kept once read: each case asks in a process of its own.
int inNewProcess(int (*function)()) {
    int result[2];
    if (::pipe(result) == -1) return INT_MIN;
    vxtest::inChild([&] {
        const int value = function();
        return ::write(result[1], &value, sizeof value) == sizeof value ? 0 : 1;
    });
    int value = INT_MIN;
    EXPECT_EQ(::read(result[0], &value, sizeof value), static_cast<ssize_t>(sizeof value));
    ::close(result[0]);
    ::close(result[1]);
    return value;
}

TEST_F(Hardware, TheGenerationIsTheNumberOfItsFile) {
    EXPECT_EQ(inNewProcess(qxhw), -1);
    sysinfo("qxhw", "");
    EXPECT_EQ(inNewProcess(qxhw), -1);
    sysinfo("qxhw", " 18\n");
    EXPECT_EQ(inNewProcess(qxhw), 18);
    sysinfo("qxhw", "12 rev b\n");
    EXPECT_EQ(inNewProcess(qxhw), 12);
    sysinfo("qxhw", "rev b\n");
    EXPECT_EQ(inNewProcess(qxhw), 0);
    sysinfo("qxhw", "-7");
    EXPECT_EQ(inNewProcess(qxhw), -7);
    sysinfo("qxhw", "99999999999");
    EXPECT_EQ(inNewProcess(qxhw), INT_MAX);
    sysinfo("qxhw", "-99999999999");
    EXPECT_EQ(inNewProcess(qxhw), INT_MIN);
}

TEST_F(Hardware, BoardDataIsReadUpToCharacter1023) {
    sysinfo("qxhw", vxtest::repeated(1021, '0') + "187");
    EXPECT_EQ(inNewProcess(qxhw), 18);
    sysinfo("bd/1/prod_variant", vxtest::repeated(1022, '0') + "34");
    EXPECT_EQ(get_extension_variant(), 3);
}

TEST_F(Hardware, TheGenerationIsKeptOnceItIsThere) {
    EXPECT_EQ(inNewProcess([] {
                  if (qxhw() != -1) return 1;
                  sysinfo("qxhw", "18\n");
                  if (qxhw() != 18) return 2;
                  sysinfo("qxhw", "19\n");
                  return qxhw() == 18 ? 0 : 3;
              }),
              0);
}

TEST_F(Hardware, OemFindsTheFirstLineOfAKey) {
    const vxtest::NoLeaks leaks;
    EXPECT_STREQ(oem("ProductType"), "");
    vxtest::writeFile(oemPath,
                      "# branding\n"
                      "ProductType =X\n"
                      "ProductTypeLong=no\n"
                      "ProductType=  Gateway 3000 \n"
                      "ProductType=second\n"
                      " Vendor=indented\n"
                      "Vendor=\tAcme=Co\n"
                      "Empty=\n"
                      "Blank=   \n"
                      "=nameless\n"
                      "Last=without newline");
    EXPECT_STREQ(oem("ProductType"), "Gateway 3000 ");
    EXPECT_STREQ(oem("Vendor"), "\tAcme=Co");  // only blanks are skipped
    EXPECT_STREQ(oem("Empty"), "");
    EXPECT_STREQ(oem("Blank"), "");
    EXPECT_STREQ(oem("Last"), "without newline");
    EXPECT_STREQ(oem("Product"), "");
    EXPECT_STREQ(oem("Vendor=\tAcme"), "Co");
    EXPECT_STREQ(oem(""), "nameless");
    EXPECT_STREQ(oem("vendor"), "");
    EXPECT_STREQ(oem("Last"), "without newline");
    EXPECT_STREQ(oem(nullptr), "");
    EXPECT_STREQ(oem("Last"), "without newline");
    ::unlink(oemPath.c_str());
    EXPECT_STREQ(oem("Last"), "");
}

TEST_F(Hardware, OemTakesItsLastResultAsAKey) {
    vxtest::writeFile(oemPath, "Default=ProductType\n=nameless\nProductType=Gateway\n");
    EXPECT_STREQ(oem(oem("Default")), "Gateway");
    EXPECT_STREQ(oem(oem("ProductType")), "") << "no line begins with \"Gateway=\"";
}

TEST_F(Hardware, OemStripsOneNewlineAndNothingElse) {
    vxtest::writeFile(oemPath, "a=1\r\n\nb=2\n\n");
    EXPECT_STREQ(oem("a"), "1\r");
    EXPECT_STREQ(oem("b"), "2");
}

TEST_F(Hardware, OemLinesEndAt1024Characters) {
    for (const size_t length : {1023U, 1024U, 1025U}) {
        vxtest::writeFile(oemPath, "k=" + vxtest::repeated(length - 2, 'v') + "\nend=1\n");
        EXPECT_STREQ(oem("k"), vxtest::repeated(std::min<size_t>(length, 1024) - 2, 'v').c_str());
        EXPECT_STREQ(oem("end"), "1");
    }
    // A value may fill the buffer: with the empty key a line has one character less in front.
    vxtest::writeFile(oemPath, "=" + vxtest::repeated(2000, 'v'));
    EXPECT_STREQ(oem(""), vxtest::repeated(1023, 'v').c_str());
    // What is cut off is a line of its own.
    vxtest::writeFile(oemPath, vxtest::repeated(1024, 'x') + "late=found\n");
    EXPECT_STREQ(oem("late"), "found");
}

TEST_F(Hardware, OemReadsAnyBytes) {
    vxtest::writeFile(oemPath, std::string("k=a\0b\nnext=1\n", 13));
    EXPECT_STREQ(oem("k"), "a");
    EXPECT_STREQ(oem("next"), "1");
}

TEST_F(Hardware, TheProductIsNamedAfterTheBoard) {
    EXPECT_STREQ(get_product(), "QX");
    sysinfo("bd/0/prod_name", "310\n");
    EXPECT_STREQ(get_product(), "QX310");
    sysinfo("bd/0/prod_name", vxtest::repeated(200, 'n'));
    EXPECT_STREQ(get_product(), ("QX" + vxtest::repeated(125, 'n')).c_str());
}

TEST_F(Hardware, TheOemFileRenamesTheProduct) {
    sysinfo("bd/0/prod_name", "310\n");
    vxtest::writeFile(oemPath, "Other=1\n");
    EXPECT_STREQ(get_product(), "");  // the file is there and knows no name
    vxtest::writeFile(oemPath, "ProductType=Generic\n");
    EXPECT_STREQ(get_product(), "Generic");
    vxtest::writeFile(oemPath, "ProductType=Generic\nProductType.QX310=Special\n");
    EXPECT_STREQ(get_product(), "Special");
    sysinfo("bd/0/prod_name", "311\n");
    EXPECT_STREQ(get_product(), "Generic");
    vxtest::writeFile(oemPath, "ProductType=" + vxtest::repeated(200, 'p') + "\n");
    EXPECT_STREQ(get_product(), vxtest::repeated(127, 'p').c_str());
}

TEST_F(Hardware, TheProductsKeyIsCutTo30Characters) {
    const std::string prefix = "ProductType.QX";
    const std::string cut(30 - prefix.size(), 'n');
    for (const std::string &name : {cut.substr(1), cut, cut + "n", cut + "nnnnn"}) {
        sysinfo("bd/0/prod_name", name);
        vxtest::writeFile(oemPath, prefix + name.substr(0, cut.size()) + "=found\n");
        EXPECT_STREQ(get_product(), "found") << name.size();
    }
}

TEST_F(Hardware, TheExtensionHasAVariant) {
    EXPECT_EQ(get_extension_variant(), -1);
    sysinfo("bd/1/prod_variant", "\n");
    EXPECT_EQ(get_extension_variant(), -1);
    sysinfo("bd/1/prod_variant", "3\n");
    EXPECT_EQ(get_extension_variant(), 3);
    sysinfo("bd/1/prod_variant", "none\n");
    EXPECT_EQ(get_extension_variant(), 0);
}

TEST_F(Hardware, PoeNeedsGeneration18AndVariant0) {
    EXPECT_EQ(inNewProcess(has_poe), 0);
    sysinfo("qxhw", "18\n");
    EXPECT_EQ(inNewProcess(has_poe), 0);
    sysinfo("bd/1/prod_variant", "0\n");
    EXPECT_EQ(inNewProcess(has_poe), 1);
    sysinfo("bd/1/prod_variant", "text\n");
    EXPECT_EQ(inNewProcess(has_poe), 1);  // a text that is not a number reads as 0
    sysinfo("bd/1/prod_variant", "1\n");
    EXPECT_EQ(inNewProcess(has_poe), 0);
    sysinfo("bd/1/prod_variant", "0\n");
    sysinfo("qxhw", "17\n");
    EXPECT_EQ(inNewProcess(has_poe), 0);
}

TEST_F(Hardware, TheSimHolderIsADevice) {
    EXPECT_EQ(has_sim_holder(), 0);
    vxtest::writeFile("/dev/sim", "");
    EXPECT_EQ(has_sim_holder(), 1);
}

TEST_F(Hardware, EachProgressMarkerMeansMaintenance) {
    EXPECT_EQ(in_maintenance(), 0);
    for (const char *marker :
         {"swupdate", "bdupdate", "fwupdate", "config", "switch-software", "switch-config", "sshkeys"}) {
        const std::string path = std::string("/tmp/progress/") + marker;
        vxtest::writeFile(path, "");
        EXPECT_EQ(in_maintenance(), 1) << marker;
        ::unlink(path.c_str());
        EXPECT_EQ(in_maintenance(), 0) << marker;
    }
    vxtest::writeFile("/tmp/progress/other", "");
    EXPECT_EQ(in_maintenance(), 0);
}

TEST_F(Hardware, FilesThatTheCallerMayNotReadAreNotThere) {
    const char *const marker = "/tmp/progress/config";
    sysinfo("bd/0/prod_name", "310\n");
    for (const char *path : {"/dev/sim", marker}) vxtest::writeFile(path, "");
    vxtest::writeFile(oemPath, "ProductType=Generic\n");
    const auto asUser = [] {
        return vxtest::inChild([] {
            if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) return 99;
            const bool renamed = get_product() == std::string("Generic");
            if (!renamed && get_product() != std::string("QX310")) return 98;
            return has_sim_holder() + 2 * in_maintenance() + 4 * (renamed ? 1 : 0);
        });
    };
    const auto permit = [&](mode_t mode) {
        for (const char *path : {"/dev/sim", marker, oemPath.c_str()}) ASSERT_EQ(::chmod(path, mode), 0) << path;
    };
    permit(0644);
    EXPECT_EQ(asUser(), 7);
    permit(0600);
    EXPECT_EQ(asUser(), 0);
}

TEST_F(Hardware, TheExampleDescribesTheBoard) {
    sysinfo("qxhw", "18\n");
    sysinfo("bd/0/prod_name", "310\n");
    sysinfo("bd/1/prod_variant", "0\n");
    const auto output = vxtest::run({vxtest::built("examples/hardware_describe")});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, "QX310, generation 18, extension variant 0\npower over ethernet: yes\nSIM holder: no\n");
}

}  // namespace
