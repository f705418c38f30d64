// SPDX-License-Identifier: MIT
// The gateway while it runs: its peers, its record, what can be ordered and shown.
#ifndef VXGATEWAY_GATEWAY_H
#define VXGATEWAY_GATEWAY_H

#include <map>
#include <memory>

#include "gateway/core/condition.h"
#include "gateway/core/peer.h"
#include "gateway/core/wallclock.h"

namespace vxgateway {

enum class Net { none, wan, full };

// Where scenarios are played that gw asks for.
class Stage {
public:
    virtual Outcome play(const std::string &name) = 0;
    virtual Outcome stopPlaying() = 0;
    virtual std::string timeline() const = 0;  // of the scenario that was played last; "null" without one

protected:
    ~Stage() = default;
};

class Gateway final : public World {
public:
    Gateway(std::string programs, Net net) : programs_(std::move(programs)), net_(net) {}

    // Lays out the board and starts all peers; returns when all are ready. Throws std::runtime_error.
    void start();
    // Ends the peers in their own way; those that do not end within a second are killed.
    void stop();

    // Says what became of it, at once or later. The words have passed check().
    void perform(const Words &words, const Done &done);
    // The text of a query, or none when it is for a peer, whose answer goes to `done`.
    std::optional<std::string> show(const Words &words, bool json, const Done &done);

    void note(Entry entry);  // with the present time
    long long now_us() const;

    // Its loop's part: descriptors to poll and what to do when one is readable.
    int logSocket() const { return log_.get(); }
    void readLog();
    std::vector<Peer *> peers() const;
    void giveUp();
    bool childEnded(pid_t pid, int status);  // false when it is not a peer's
    void programStarted(pid_t pid);
    void programEnded();

    std::optional<std::string> status(const std::string &name) const override;
    char outputLevel(long long output) const override;
    bool programRuns() const override { return program_ > 0; }
    const Record &record() const override { return record_; }

    bool replaysDaemons = false;  // the configuration and modem daemons are played by a replay
    bool setsClock = false;       // programs see a clock that can be set
    std::string scenario;         // name of the one that is being played
    Stage *stage = nullptr;       // set before anything is ordered
    std::string echoLog;          // prefix of the system log's lines on standard error; empty: none there

private:
    void openLog();
    Peer &addPeer(const std::string &name, std::vector<std::string> command);
    Peer *peer(const std::string &name) const;
    void startPeer(Peer &peer);
    void waitUntilReady(const std::vector<Peer *> &peers);
    void openToUsers() const;
    void hear(const std::string &name, const std::string &line);
    std::optional<Outcome> performHere(const Words &words);
    Outcome setClock(const Words &words);
    Outcome performProgram(const Words &words) const;
    Outcome performPeer(const Words &words);
    Outcome deliver(const Words &words);
    void remember(const Words &words);
    std::optional<Problem> checkLines(const Words &words) const;

    std::string everything() const;
    std::string peersJson() const;
    std::string statusJson() const;
    std::string configJson() const;
    std::string entries(const std::string &kind, bool json) const;
    std::map<std::string, std::string> statusTree() const;

    std::string programs_;
    Net net_;
    Clock::time_point started_ = Clock::now();
    Record record_;
    Descriptor log_;
    std::vector<std::unique_ptr<Peer>> peers_;
    pid_t program_ = -1;
    WallClock clock_;

    // What was ordered last, as it is shown.
    long long inputCount_ = 4;
    long long outputCount_ = 2;
    std::map<long long, char> inputs_;
    std::map<long long, char> outputs_;
    std::map<long long, long long> supplies_{{1, 12100}, {2, 0}};
    long long converter_ = 906;
    long long delay_ms_ = 3;
    long long lossPercent_ = 0;
    bool cable_ = true;
    std::string signal_ = "-67";
    bool reset_ = false;
    bool suspended_ = false;
};

}  // namespace vxgateway

#endif
