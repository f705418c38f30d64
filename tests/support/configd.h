// SPDX-License-Identifier: MIT
// The virtual gateway's configuration daemon, as a test steers it.
#pragma once

#include <string>
#include <vector>

#include "support/process.h"

namespace vxtest {

class Configd {
public:
    explicit Configd(std::vector<std::string> arguments = {}) : process_(command(std::move(arguments))) {
        while (process_.readLine() != "ready") continue;
    }

    // Gives a command and waits for its confirmation; what is printed before it is the answer.
    std::vector<std::string> tell(const std::string &order) {
        process_.send(order + "\n");
        std::vector<std::string> lines;
        for (;;) {
            std::string line = process_.readLine();
            if (line == "ok " + order) return lines;
            lines.push_back(std::move(line));
        }
    }

    std::string get(const std::string &key) { return tell("get " + key).back().substr(key.size() + 1); }
    int requests() { return std::stoi(tell("requests").back()); }
    // Ends without a farewell; its socket file stays. Returns when it is gone.
    void die() {
        tell("die");
        process_.wait();
    }

    Process &process() { return process_; }

private:
    static std::vector<std::string> command(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), built("gateway/configd"));
        return arguments;
    }

    Process process_;
};

}  // namespace vxtest
