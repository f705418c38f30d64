// SPDX-License-Identifier: MIT
// simplesms_answer TEXT...: answers every incoming message with the text, and deletes it.
#include <vxutils/simplesms.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

int main(int argc, char **argv) {
    std::string answer;
    for (int i = 1; i < argc; ++i) answer.append(i > 1 ? " " : "").append(argv[i]);

    std::vector<std::pair<long long, std::string>> ids;
    CSimpleSMS::RetrieveIncomingIds(ids);
    for (const auto &id : ids) {
        const std::unique_ptr<CSimpleSMS> sms(CSimpleSMS::getIncomingSMSById(id.second));
        if (!sms) continue;
        std::printf("%s asks: %s\n", sms->getNumber().c_str(), sms->getText().c_str());
        if (CSimpleSMS(sms->getNumber(), answer).send() != 0) {
            std::puts("cannot answer");
            continue;
        }
        std::puts("answered");
        CSimpleSMS::DeleteIncomingSMSById(id.second);
    }
    return 0;
}
