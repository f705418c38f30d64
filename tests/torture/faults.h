// SPDX-License-Identifier: MIT
// Fault injection: each fallible call that the library makes during a scenario fails in turn.
//
// A scenario is an honest piece of work against real peers. A first run of it counts the fallible calls (memory, files,
// sockets, processes, IPC, threads), then it is run again and again: with call 1 failing, with call 2 failing, and so
// on, with each error that is legal there, and with all calls failing from a certain one on. Each disturbed run is
// followed by an undisturbed one in the same process, which has to give the right results.
//
// Waiting costs no real time: inside the library's calls sleeps and time-outs advance a clock of their own. A scenario has
// the directory /tmp/torture for its files.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <vector>

namespace torture {

using namespace std::chrono_literals;

// A pseudo error: a read or write that moves fewer bytes than asked.
constexpr int shortTransfer = -1;

// Library calls are made while a guard of this kind lives; only they are disturbed, and only on this thread.
class Armed {
public:
    Armed();
    ~Armed();
    Armed(const Armed &) = delete;
    Armed &operator=(const Armed &) = delete;
};

// Suspends an Armed guard: for callbacks into the scenario.
class Disarmed {
public:
    Disarmed();
    ~Disarmed();
    Disarmed(const Disarmed &) = delete;
    Disarmed &operator=(const Disarmed &) = delete;

private:
    int saved_;
};

// The calls of a child that the library forks have numbers of their own: 10001 is the first call of the first child.
constexpr size_t callsPerProcess = 10000;

// One fallible call of the counted run.
struct Point {
    size_t number;
    const char *call;
    int errors[6];
    size_t errorCount;
};

// Which call fails how.
struct Fault {
    size_t call = 0;  // its number; 1 is the first one, 0: none fails
    int error = 0;
    bool persistent = false;  // all later calls fail as well
};

void interceptCalls(bool on);  // calls.cpp

// Called by the interposed functions.
int decide(const char *call, std::initializer_list<int> errors);
size_t nextProcess();              // before fork()
void enterProcess(size_t number);  // in the child
bool armed();
std::chrono::nanoseconds virtualTime();  // how far the clock inside the library's calls is ahead
void passTime(std::chrono::nanoseconds duration);
// A wait of this length is cut to this much real time; the rest passes on the virtual clock.
constexpr auto patience = 400ms;

// One run of a scenario.
class Run {
public:
    Run(const Fault &fault, const std::set<std::string> &excluded);
    ~Run();
    Run(const Run &) = delete;
    Run &operator=(const Run &) = delete;

    // Makes one library call, or several that belong together. `limit` is the longest time that the contract allows.
    template <typename Call>
    auto operator()(Call call, std::chrono::nanoseconds limit = 2s) {
        begin();
        struct End {
            Run &run;
            std::chrono::nanoseconds limit;
            ~End() { run.end(limit); }
        } end{*this, limit};
        const Armed armed;
        return call();
    }

    bool hit() const;                     // a call failed on purpose during the last library call
    bool disturbed() const;               // a call failed on purpose in this run
    int error() const { return error_; }  // errno after the last library call
    bool told() const;  // errno is one with which a call failed on purpose during the last library call
    bool failed(const char *call) const;  // this call failed on purpose during the last library call
    bool wasShort() const { return fault_.error == shortTransfer; }

    // States the outcome of the last library call: it is `right`, or a call failed on purpose and the documented
    // failure shows, with one log line that contains `line` (null: none is demanded). Returns `right`.
    bool outcome(const char *what, bool right, bool documented, const char *line = nullptr);

    // States a fact that holds after every failure.
    void always(const char *what, bool holds);

    const std::vector<std::string> &findings() const { return findings_; }

private:
    void begin();
    void end(std::chrono::nanoseconds limit);
    void finding(const std::string &text);

    Fault fault_;
    int error_ = 0;
    std::chrono::nanoseconds virtualStart_{};
    std::chrono::steady_clock::time_point realStart_{};
    std::vector<std::string> findings_;
};

// One family's scenario.
struct Scenario {
    const char *name;
    std::function<void(Run &)> run;
    std::set<std::string> excluded{};  // calls that never fail here; the reason is beside the list
};

// Runs the scenarios with the program's arguments; the program's exit status.
//   PROGRAM [--sample N] [--seed S] [--only CALL[:ERROR[:from]]] [--list]
int torment(int argc, char **argv, const std::vector<Scenario> &scenarios);

}  // namespace torture
