// SPDX-License-Identifier: MIT
// Replays a recording: answers a program as it was answered when it was recorded, and finds the first thing that it does
// in another way.
//
// What a program does (its effects: requests, commands, writes, events, echoes, log lines, commands run) is compared for
// each source by itself. Effects keep their order on the same file, socket or interface; those of different ones may come in
// another order when they were recorded within the tolerance. Numbers in log lines are not compared, debug lines not at all.
// What a program looks at (files read, their presence, interfaces) is answered: it may look more or less often than it
// did, and sees a changed value only after it has done what it did before the change.
#ifndef VXGATEWAY_REPLAY_H
#define VXGATEWAY_REPLAY_H

#include <poll.h>
#include <sys/un.h>

#include <deque>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "gateway/core/mask.h"
#include "gateway/core/peer.h"
#include "gateway/core/recording.h"
#include "gateway/tap.h"

namespace vxgateway {

class Replay {
public:
    static constexpr const char *socketPath = "/run/vxgateway-replay";

    struct Tolerance {
        double seconds = 1;
        std::vector<std::string> ignored;  // patterns of lines, without time and source
    };

    Replay(std::string name, std::vector<RecordedLine> lines, Tolerance tolerance);

    void listen();  // throws std::runtime_error
    void programStarted(pid_t pid);
    // Compares with how the recorded program ended.
    void programEnded(int status);

    void addTo(std::vector<pollfd> &waiting) const;
    // Milliseconds until something is due; -1 when nothing is.
    int patience_ms() const;
    void serve();

    const std::string &difference() const { return difference_; }  // "" as long as there is none
    bool over() const { return over_; }                            // everything was replayed, the program may end

private:
    struct Effect {
        RecordedLine line;
        bool done = false;
        bool spare = false;  // repeats after the last signal what was done before
    };
    // What a file, a directory or an interface looked like, one after the other.
    struct View {
        std::vector<RecordedLine> lines;
        size_t next = 0;
    };
    struct Program {  // one source of it
        std::vector<Effect> effects;
        size_t first = 0;  // all before are done
        std::map<std::string, View> views;
    };
    struct Due {
        Clock::time_point when;
        std::function<void()> act;
    };
    // What peers and the one who ran the program did of their own accord, after what was done before.
    struct Unasked {
        RecordedLine line;
        long long after_us = 0;
        bool started = false;
    };
    struct Request {  // asked by the tap, not yet arrived
        std::string bytes;
        std::vector<RecordedLine> answers;
        long long time_us = 0;
    };
    struct Connection {
        Descriptor fd;
        std::string channel;  // with the source
    };

    bool isIgnored(const RecordedLine &line) const;
    void take(int tap, const std::string &text);
    void takeEffect(int tap, Program &program, const RecordedLine &line);
    void takeView(int tap, Program &program, const RecordedLine &line);
    void perform(int tap, const RecordedLine &asked, const Effect &effect);
    std::vector<RecordedLine> answersTo(const RecordedLine &line) const;
    static void answer(int tap, TapAnswer head, const std::string &bytes);
    void differ(const RecordedLine &expected, const std::string &got);
    void readConfig();
    void acceptModems();
    void later(long long delay_us, std::function<void()> act);
    void startUnasked();
    void doUnasked(const RecordedLine &line);
    void watchPatience();
    void findSpares(size_t lastSignal);
    const Effect *oldestUndone(bool withSpares) const;
    bool allDoneBefore(long long time_us) const;

    std::string name_;
    std::vector<RecordedLine> lines_;
    long long tolerance_us_;
    std::vector<std::string> ignored_;
    Mask mask_;
    std::map<std::string, Program> programs_;
    std::list<Unasked> unasked_;
    const RecordedLine *exit_ = nullptr;
    size_t firstSignal_ = 0;  // its line
    Descriptor listener_;
    Descriptor config_;
    std::map<int, Descriptor> modems_;  // by card
    std::list<Descriptor> taps_;
    std::deque<Request> requests_;
    std::map<int, std::deque<std::string>> expectedModems_;  // channels about to connect, by card
    std::list<Connection> connections_;
    std::vector<Due> due_;
    pid_t pid_ = -1;
    Clock::time_point lastDone_;
    long long lastDone_us_ = 0;
    std::string difference_;
    bool over_ = false;
    std::vector<char> packet_;
};

}  // namespace vxgateway

#endif
