// SPDX-License-Identifier: MIT
#include <benchmark/benchmark.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <regex>

#include "bench/counting/marks.h"

namespace benchmark {
namespace {

// Fixed numbers, so that two runs count the same. Some cases take their inputs in turn: a multiple of 4.
constexpr unsigned int warmUpRounds = 8;
constexpr unsigned int countedRounds = 32;

std::vector<std::unique_ptr<Case>> &cases() {
    static std::vector<std::unique_ptr<Case>> all;
    return all;
}

std::string filter;

// A system call that does nothing, for the plug-in to see.
void mark(int what) { ::syscall(SYS_getppid, VXCOUNT_MAGIC, what); }

}  // namespace

State::State(std::string name, std::vector<int64_t> arguments, unsigned int mostRounds)
    : counted_(std::min(countedRounds, mostRounds)), name_(std::move(name)), arguments_(std::move(arguments)) {}

bool State::nextPhase() {
    switch (phase_) {
        case Phase::fresh:
            phase_ = Phase::warmingUp;
            left_ = std::min(warmUpRounds, counted_) - 1;
            return true;
        case Phase::warmingUp:
            phase_ = Phase::counting;
            left_ = counted_ - 1;
            // The plug-in completes this line at the end mark.
            ::dprintf(STDOUT_FILENO, "%s %u ", name_.c_str(), counted_);
            mark(VXCOUNT_BEGIN);
            return true;
        case Phase::counting:
            mark(VXCOUNT_END);
            phase_ = Phase::done;
            return false;
        case Phase::done:
            return false;
    }
    return false;
}

void State::SkipWithError(const char *message) {
    if (phase_ == Phase::counting) mark(VXCOUNT_END);
    phase_ = Phase::done;
    left_ = 0;
    ::dprintf(STDOUT_FILENO, "# %s: %s\n", name_.c_str(), message);
}

void State::PauseTiming() { mark(VXCOUNT_PAUSE); }
void State::ResumeTiming() { mark(VXCOUNT_RESUME); }

Case::Case(std::string name, std::function<void(State &)> function)
    : name_(std::move(name)), function_(std::move(function)) {}

Case *Case::Name(const std::string &name) {
    name_ = name;
    return this;
}

Case *Case::Arg(int64_t argument) {
    arguments_.push_back(argument);
    return this;
}

Case *Case::Range(int64_t first, int64_t last) {
    for (int64_t argument = first; argument < last; argument *= factor_) arguments_.push_back(argument);
    arguments_.push_back(last);
    return this;
}

Case *Case::RangeMultiplier(int factor) {
    factor_ = factor;
    return this;
}

Case *Case::Iterations(unsigned int rounds) {
    mostRounds_ = rounds;
    return this;
}

Case *Case::UseManualTime() {
    timesItself_ = true;
    return this;
}

void Case::run(const std::string &wanted) const {
    if (arguments_.empty()) runOne(wanted, name_, {});
    for (const int64_t argument : arguments_) runOne(wanted, name_ + "/" + std::to_string(argument), {argument});
}

void Case::runOne(const std::string &wanted, const std::string &name, const std::vector<int64_t> &arguments) const {
    if (!std::regex_search(name, std::regex(wanted))) return;
    if (timesItself_) {
        ::dprintf(STDOUT_FILENO, "# %s: measures by the clock\n", name.c_str());
        return;
    }
    State state(name, arguments, mostRounds_);
    function_(state);
}

Case *registerCase(std::unique_ptr<Case> added) {
    cases().push_back(std::move(added));
    return cases().back().get();
}

void Initialize(int *argc, char **argv) {
    constexpr char option[] = "--benchmark_filter=";
    for (int i = 1; i < *argc; ++i) {
        if (std::strncmp(argv[i], option, sizeof option - 1) == 0) filter = argv[i] + sizeof option - 1;
    }
}

void RunSpecifiedBenchmarks() {
    for (const auto &one : cases()) one->run(filter);
}

}  // namespace benchmark

// Weak: one benchmark has a main of its own.
[[gnu::weak]] int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
