// SPDX-License-Identifier: MIT
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/file.h>

#include <cstdlib>
#include <string>

#include "support/files.h"
#include "torture/faults.h"

using torture::Run;

namespace {

void clean() { [[maybe_unused]] const int status = std::system("rm -rf /tmp/torture/*"); }

void makeAndRemove(Run &run) {
    char path[] = "/tmp/torture/a/b/c";
    const int made = run([&] { return create_directory(path); });
    run.outcome("create_directory", made == 0 && vxtest::exists(path), made == -1 && run.told(),
                run.failed("strdup") ? nullptr : "create");
    (void)std::system("chmod -R u+w /tmp/torture; mkdir -p /tmp/torture/a/b/c");
    vxtest::writeFile("/tmp/torture/a/b/file", "text");

    const int empty = run([] { return empty_directory("/tmp/torture/a"); });
    run.outcome("empty_directory", empty == 0, empty == 1);  // one that cannot be read counts as empty
    const int regular = run([] { return delete_regular_file("/tmp/torture/a/b/file"); });
    run.outcome("delete_regular_file", regular == 0 && !vxtest::exists("/tmp/torture/a/b/file"),
                (regular == -1 && run.told()) || run.failed("lstat"));
    vxtest::writeFile("/tmp/torture/a/file", "text");
    const int contents = run([] { return delete_directory_contents("/tmp/torture/a"); });
    run.outcome("delete_directory_contents", contents == 0 && empty_directory("/tmp/torture/a") == 1,
                (contents == -1 && run.told()) || vxtest::exists("/tmp/torture/a"));
    const int removed = run([] { return delete_directory("/tmp/torture/a"); });
    run.outcome("delete_directory", removed == 0 && !vxtest::exists("/tmp/torture/a"),
                (removed == -1 && run.told()) || vxtest::exists("/tmp/torture/a"));
    clean();
}

void copy(Run &run) {
    vxtest::writeFile("/tmp/torture/from/file", "some text");
    vxtest::writeFile("/tmp/torture/from/below/second", "more text");
    const int one = run([] { return copy_file("/tmp/torture/from/file", "/tmp/torture/new/copy"); });
    // One transfer and no loop: a short one is not noticed. A copy that could not be finished stays.
    const bool shortTransfer = run.failed("sendfile") && run.wasShort() && one == 0;
    run.outcome("copy_file", one == 0 && vxtest::readFile("/tmp/torture/new/copy") == "some text",
                (one == -1 && run.told()) || shortTransfer, one == -1 && !run.failed("strdup") ? " " : nullptr);

    const int tree = run([] { return copy_directory("/tmp/torture/from", "/tmp/torture/to"); });
    const bool whole = vxtest::readFile("/tmp/torture/to/file") == "some text" &&
                       vxtest::readFile("/tmp/torture/to/below/second") == "more text";
    const bool notNoticed = run.failed("sendfile") && run.wasShort() && tree == 0;
    run.outcome("copy_directory", tree == 0 && whole, (tree == -1 && run.told()) || notNoticed);
    clean();
}

}  // namespace

int main(int argc, char **argv) {
    return torture::torment(argc, argv, {{"directory: make and remove", makeAndRemove}, {"directory: copy", copy}});
}
