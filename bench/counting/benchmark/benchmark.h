// SPDX-License-Identifier: MIT
// Counts instructions where Google Benchmark measures time: the part of its interface that the benchmarks here use, so
// that one source serves both. scripts/bench --board puts this directory in front of the real header and runs the
// programs under an emulator whose plug-in (counter.c) does the counting.
#pragma once

#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace benchmark {

// Keeps the compiler from dropping or moving what computes `value`.
template <typename Value>
[[gnu::always_inline]] inline void DoNotOptimize(const Value &value) {
    asm volatile("" : : "r,m"(value) : "memory");
}
template <typename Value>
[[gnu::always_inline]] inline void DoNotOptimize(Value &value) {
    asm volatile("" : "+m,r"(value) : : "memory");
}
[[gnu::always_inline]] inline void ClobberMemory() { asm volatile("" : : : "memory"); }

enum TimeUnit { kNanosecond, kMicrosecond, kMillisecond };
enum BigO { oN };

// Counters of one's own are accepted and not shown.
struct Counter {
    enum Flags { kDefaults = 0, kAvgIterations = 1, kIsIterationInvariantRate = 2, kInvert = 4 };
    Counter &operator[](const char *) { return *this; }
    Counter &operator=(const Counter &) = default;
    Counter() = default;
    Counter(const Counter &) = default;
    explicit Counter(double, int = kDefaults) {}
};

// One run of a case: some rounds to warm up, then the counted ones.
class State {
public:
    State(std::string name, std::vector<int64_t> arguments, unsigned int mostRounds);

    // A check and a decrement per round, as in the real loop.
    bool KeepRunning() {
        if (left_ == 0) return nextPhase();
        --left_;
        return true;
    }

    struct [[maybe_unused]] Round {};
    class Iterator {
    public:
        explicit Iterator(State *state) : state_(state) {}
        bool operator!=(const Iterator &) const { return state_->KeepRunning(); }
        Iterator &operator++() { return *this; }
        Round operator*() const { return {}; }

    private:
        State *state_;
    };
    Iterator begin() { return Iterator(this); }
    Iterator end() { return Iterator(this); }

    int64_t range(size_t index = 0) const { return arguments_.at(index); }
    uint64_t iterations() const { return counted_; }
    void SkipWithError(const char *message);

    // What runs between these two is not counted.
    void PauseTiming();
    void ResumeTiming();

    void SetBytesProcessed(int64_t) {}
    void SetItemsProcessed(int64_t) {}
    void SetComplexityN(int64_t) {}
    void SetIterationTime(double) {}
    Counter counters;

private:
    enum class Phase { fresh, warmingUp, counting, done };

    [[gnu::noinline]] bool nextPhase();

    unsigned int left_ = 0;  // one register on every machine
    Phase phase_ = Phase::fresh;
    unsigned int counted_;
    std::string name_;
    std::vector<int64_t> arguments_;
};

class Case {
public:
    Case(std::string name, std::function<void(State &)> function);

    Case *Name(const std::string &name);
    Case *Arg(int64_t argument);
    Case *Range(int64_t first, int64_t last);
    Case *RangeMultiplier(int factor);
    Case *Iterations(unsigned int rounds);
    Case *Unit(TimeUnit) { return this; }
    Case *Complexity(BigO) { return this; }
    Case *UseRealTime() { return this; }
    // Cases that take the time themselves are left out: their rounds hold more than what they measure.
    Case *UseManualTime();

    // Runs the case once per argument whose full name contains a match of `filter`.
    void run(const std::string &filter) const;

private:
    void runOne(const std::string &filter, const std::string &name, const std::vector<int64_t> &arguments) const;

    std::string name_;
    std::function<void(State &)> function_;
    std::vector<int64_t> arguments_;
    int64_t factor_ = 8;
    unsigned int mostRounds_ = UINT_MAX;
    bool timesItself_ = false;
};

Case *registerCase(std::unique_ptr<Case> added);

template <typename Function, typename... Arguments>
Case *RegisterBenchmark(const char *name, Function function, Arguments... arguments) {
    return registerCase(
        std::make_unique<Case>(name, [=](State &state) mutable { std::invoke(function, state, arguments...); }));
}

void Initialize(int *argc, char **argv);
void RunSpecifiedBenchmarks();

}  // namespace benchmark

#define VXCOUNT_JOIN_(a, b) a##b
#define VXCOUNT_JOIN(a, b) VXCOUNT_JOIN_(a, b)
#define BENCHMARK(...)                                                                   \
    [[maybe_unused]] static benchmark::Case *const VXCOUNT_JOIN(vxcountCase, __LINE__) = \
        benchmark::RegisterBenchmark(#__VA_ARGS__, __VA_ARGS__)
