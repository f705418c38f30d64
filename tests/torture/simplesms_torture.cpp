// SPDX-License-Identifier: MIT
#include <sys/stat.h>
#include <sys/wait.h>
#include <vxutils/simplesms.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "support/files.h"
#include "torture/faults.h"

using torture::Run;

namespace {

const std::string spool = "/var/spool/sms/incoming/";

template <typename Call>
bool hasMemory(Call call) {
    try {
        call();
        return true;
    } catch (const std::bad_alloc &) {  // of the string and vector types: documented
        return false;
    }
}

void spoolOf(Run &run) {
    vxtest::writeFile(spool + "id", "From: 0123\nReceived: today\n\nhello\n");
    std::vector<std::pair<long long, std::string>> ids;
    bool memory = run([&] { return hasMemory([&] { CSimpleSMS::RetrieveIncomingIds(ids); }); });
    run.outcome("RetrieveIncomingIds", memory && ids.size() == 1 && !run.hit(), ids.size() <= 1);
    const std::string id = "id";
    std::unique_ptr<CSimpleSMS> sms;
    memory = run([&] { return hasMemory([&] { sms.reset(CSimpleSMS::getIncomingSMSById(id)); }); });
    const bool right = sms != nullptr && sms->getNumber() == "0123" && sms->getText() == "hello";
    run.outcome("getIncomingSMSById", right, sms == nullptr, memory ? "sms: " : nullptr);
    int deleted = -1;
    memory = run([&] { return hasMemory([&] { deleted = CSimpleSMS::DeleteIncomingSMSById(id); }); });
    run.outcome("DeleteIncomingSMSById", deleted == 0 && !vxtest::exists(spool + "id"),
                deleted == -1 && (run.told() || !memory) && vxtest::exists(spool + "id"));
    [[maybe_unused]] const int removed = std::system(("rm -f " + spool + "*").c_str());
}

void sendOne(Run &run) {
    vxtest::writeFile("/usr/local/sbin/send-sms", "#!/bin/sh\ncp \"$1\" /tmp/sent\nrm -f \"$1\"\n");
    ::chmod("/usr/local/sbin/send-sms", 0755);
    ::unlink("/tmp/sent");
    CSimpleSMS sms("0123", "hello");
    int sent = -2;
    run([&] { hasMemory([&] { sent = sms.send(); }); });
    run.outcome("send", sent == 0 && vxtest::readFile("/tmp/sent") == "To: 0123\n\nhello\n", sent != 0);
    while (::waitpid(-1, nullptr, 0) > 0) continue;
    ::unlink("/tmp/sent");
}

}  // namespace

int main(int argc, char **argv) {
    vxtest::makeDirs(spool);
    // A process that cannot fork becomes the program itself, and a wait that fails counts as success: Quirks Q44 and Q45
    // of run_command().
    return torture::torment(argc, argv,
                            {{"simplesms: spool", spoolOf}, {"simplesms: send", sendOne, {"fork", "waitpid"}}});
}
