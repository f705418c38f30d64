// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vxutils/file.h>
#include <vxutils/list.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/files.h"
#include "torture/faults.h"

using torture::Run;

namespace {

const char *const path = "/tmp/torture/value";

// A failed or short write leaves the temporary file: that is documented, and described by its name.
void forgetTemporary(Run &run) {
    const int removed = std::system("rm -f /tmp/torture/value_??????");
    run.always("the temporary files have the documented name", removed == 0);
}

void replaceAndRead(Run &run) {
    vxtest::writeFile(path, "old\n");
    const int written = run([] { return write_file_atomic(path, "new", 3, 1, 0); });
    run.outcome("write_file_atomic", written == 0, written == -1 && (run.told() || run.wasShort()), "Unable to");
    const std::string content = vxtest::readFile(path);
    run.always("the file holds the old or the new text", content == (written == 0 ? "new\n" : "old\n"));

    char buffer[64];
    const char *text = run([&] { return readfile_r(path, buffer, sizeof buffer); });
    run.outcome("readfile_r", content == std::string(text) + "\n", content.rfind(text, 0) == 0);

    const int renewed = run([] { return writefile(path, "newer"); });
    run.outcome("writefile", renewed == 0, renewed == -1 && (run.told() || run.wasShort()), "Unable to");
    const int removed = run([] { return writefile(path, ""); });
    run.outcome("writefile of nothing", removed == 0 && !vxtest::exists(path), removed == -1 && run.told(),
                "Unable to unlink");
    forgetTemporary(run);
    ::unlink(path);
}

// A direct write is truncated or partial where the device refuses it.
void writeDirectly(Run &run) {
    const char *const device = "/dev/shm/attribute";
    const int written = run([&] { return write_file_atomic(device, "command", 7, 1, 1); });
    run.outcome("write_file_atomic on a device", written == 0 && vxtest::readFile(device) == "command\n",
                written == -1 && (run.told() || run.wasShort()), "Unable to");
    ::unlink(device);
}

void readLines(Run &run) {
    vxtest::writeFile(path, "one\ntwo\nthree\n");
    list_link lines{&lines, &lines};
    const int count = run([&] { return read_file_lines(path, &lines); });
    std::vector<std::string> texts;
    for (list_link *link = lines.next; link != &lines;) {
        auto *line = reinterpret_cast<file_line *>(link);
        link = link->next;
        texts.emplace_back(line->data != nullptr ? line->data : "no memory");
        std::free(line->data);
        std::free(line);
    }
    const bool failed = (count == READFILE_OPEN_FAILED || count == READFILE_OUT_OF_MEMORY) && run.told();
    const bool cut = run.failed("read") && count >= 0;     // the end of a file and a failed read are one
    const bool gap = run.failed("strndup") && count >= 0;  // a line without text
    run.outcome("read_file_lines", count == 3 && texts == std::vector<std::string>{"one", "two", "three"},
                failed || cut || gap, count == READFILE_OUT_OF_MEMORY ? "Zalloc failed" : nullptr);
    ::unlink(path);
}

void smallJobs(Run &run) {
    vxtest::writeFile(path, "192.0.2.7\n");
    sockaddr_in address{};
    const int read = run([&] { return readaddress(path, reinterpret_cast<sockaddr *>(&address)); });
    run.outcome("readaddress", read == 0 && address.sin_addr.s_addr == htonl(0xC0000207),
                run.wasShort() || (read == -1 && run.told()));

    const std::string value = run([] { return readfile(path); });
    run.outcome("readfile", value == "192.0.2.7", std::string("192.0.2.7").rfind(value, 0) == 0);

    const int made = run([] { return try_mkdir("/tmp/torture/made"); });
    run.outcome("try_mkdir", made == 0 && vxtest::exists("/tmp/torture/made"), made == -1 && run.told(),
                "create directory");
    ::rmdir("/tmp/torture/made");

    const char *name = run([] { return create_tmpfile("/tmp/torture/made.XXXXXX"); });
    run.outcome("create_tmpfile", name != nullptr && vxtest::exists(name), name == nullptr && run.told());
    if (name != nullptr) ::unlink(name);

    const int dropped = run([] { return dropfile(path); });
    run.outcome("dropfile", dropped == 0 && !vxtest::exists(path),
                (dropped == -1 && run.told()) || vxtest::exists(path));
    ::unlink(path);
}

// A value behind links: relative, absolute, and of the kernel.
void followLinks(Run &run) {
    vxtest::writeFile(path, "text");
    run.always("links", ::symlink("value", "/tmp/torture/relative") == 0 &&
                            ::symlink("/tmp/torture/relative", "/tmp/torture/absolute") == 0);
    char buffer[64];
    const char *text = run([&] { return readfile_r("/tmp/torture/absolute", buffer, sizeof buffer); });
    run.outcome("readfile_r through links", std::string(text) == "text", std::string("text").rfind(text, 0) == 0);

    const int copied = run([] { return copy_file("/tmp/torture/relative", "/tmp/torture/copy"); });
    const bool isShort = run.failed("sendfile") && run.wasShort() && copied == 0;
    run.outcome("copy_file from a link", copied == 0 && vxtest::readFile("/tmp/torture/copy") == "text",
                (copied == -1 && run.told()) || isShort);

    vxtest::writeFile("/tmp/torture/source", "newer");
    const int through = run([] { return copy_file("/tmp/torture/source", "/tmp/torture/absolute"); });
    const bool isCut = run.failed("sendfile") && run.wasShort() && through == 0;
    run.outcome("copy_file to a link", through == 0 && vxtest::readFile(path) == "newer",
                (through == -1 && run.told()) || isCut);

    const int file = ::open(path, O_WRONLY | O_CLOEXEC);
    const std::string kernels = "/proc/self/fd/" + std::to_string(file);
    const int again = run([&] { return copy_file("/tmp/torture/source", kernels.c_str()); });
    const bool isCutAgain = run.failed("sendfile") && run.wasShort() && again == 0;
    run.outcome("copy_file to a link of the kernel", again == 0 && vxtest::readFile(path) == "newer",
                (again == -1 && run.told()) || isCutAgain);
    ::close(file);
    [[maybe_unused]] const int removed = std::system("rm -rf /tmp/torture/*");
}

}  // namespace

int main(int argc, char **argv) {
    return torture::torment(argc, argv,
                            {{"file: replace and read", replaceAndRead},
                             {"file: write directly", writeDirectly},
                             {"file: read lines", readLines},
                             {"file: small jobs", smallJobs},
                             {"file: follow links", followLinks}});
}
