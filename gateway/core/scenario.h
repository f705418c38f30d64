// SPDX-License-Identifier: MIT
// Scenarios: what happens to the gateway when, and what is expected of the program in it. One step a line:
//
//   question TEXT                     what the scenario asks a daemon
//   at SECONDS ORDER                  an order of gw, so long after the start or after the last "when"
//   when CONDITION [within SECONDS]   waits for it; times count from then on
//   expect CONDITION [within SECONDS] the same, but times go on as before
//   repeat COUNT                      repeats the lines up to "end"; times count from the beginning of each round
//   end
//
// Plain lines, because they are the orders that one types at the prompt, with no second set of rules for quoting.
#ifndef VXGATEWAY_SCENARIO_H
#define VXGATEWAY_SCENARIO_H

#include <string>
#include <vector>

#include "gateway/core/gateway.h"

namespace vxgateway {

struct Step {
    enum class Kind { at, when, expect, restart } kind;
    size_t line = 0;
    Words words;         // order or condition
    double seconds = 0;  // when; or within which time
};

struct Scenario {
    std::string name;
    std::string question;
    std::vector<Step> steps;
};

constexpr double defaultPatience_s = 10;

// Throws std::runtime_error with one "NAME:LINE:COLUMN: MESSAGE" a line for everything that is wrong.
Scenario readScenario(const std::string &name, const std::string &text);

// Plays a scenario: next() does what is due.
class Player {
public:
    // Without a program, what concerns it is left out.
    Player(Gateway &gateway, Scenario scenario, bool withProgram);

    // False when the scenario is over.
    bool next();
    const std::string &failure() const { return failure_; }  // "" as long as everything was as expected
    bool expectsMore() const;                                // conditions are left to be waited for

    // Nothing more is ordered. An order that is under way still refers to the player.
    void stop() { stopped_ = true; }
    bool isOrdering() const { return ordered_; }

    // The scenario line by line with what was done of it, as JSON. Lines of a "repeat" are there once.
    std::string timeline() const;

private:
    const Step *present() const { return at_ < scenario_.steps.size() ? &scenario_.steps[at_] : nullptr; }
    bool wait(const Step &step);
    void fail(const Step &step, const std::string &why);
    long long sinceOrigin_us() const { return gateway_.now_us() - origin_us_; }

    Gateway &gateway_;
    Scenario scenario_;
    bool withProgram_;
    size_t at_ = 0;
    long long origin_us_;
    long long lastOrder_us_;
    bool ordered_ = false;  // an order of the present step is under way
    std::optional<Condition> condition_;
    long long deadline_us_ = 0;
    std::string failure_;
    size_t failedLine_ = 0;
    bool stopped_ = false;
    bool over_ = false;
};

}  // namespace vxgateway

#endif
