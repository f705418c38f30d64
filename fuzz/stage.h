// SPDX-License-Identifier: MIT
// What the machine shows to a parser: files, commands and peers whose content is the input of a fuzz target. The calls are
// answered in stage.cpp, as long as a target has something on stage.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace stage {

// Files below this prefix have this content; an empty prefix leaves all files alone.
struct Files {
    std::string prefix;
    std::string_view content;
};
inline Files files;

// Output of every command that popen() starts, and what pclose() returns for it.
struct Command {
    std::string_view output;
    int status = 0;
};
inline std::optional<Command> command;

// Pauses of the library return at once.
inline bool noPauses = false;

// The lines of /proc/mounts; the target of every link below /sys/class/block, whose names are in this directory.
struct Disks {
    std::string_view mounts;
    std::string link;
    std::string directory;
};
inline std::optional<Disks> disks;

// A socket's peer on a thread of its own, made once and there until the process ends. The datagram peer answers each
// request with what `answer` returns; the stream peer sends parts that are received one by one, and then hangs up if it
// was told to.
struct Reply {
    std::vector<std::string> parts;
    bool hangUp;
};
void startDatagramPeer(const char *path, std::function<std::string(std::string_view request)> answer);
void startStreamPeer(const char *path, std::function<Reply(std::string_view request)> answer);

// Pieces of an input, separated by the byte 0xFF.
class Pieces {
public:
    explicit Pieces(std::string_view text) : rest_(text) {}
    std::string_view next() {
        const std::string_view piece = rest_.substr(0, rest_.find('\xff'));
        rest_.remove_prefix(piece.size() < rest_.size() ? piece.size() + 1 : rest_.size());
        return piece;
    }
    [[nodiscard]] bool empty() const { return rest_.empty(); }

private:
    std::string_view rest_;
};

// What a peer answers: the pieces of the input that is played, one after the other. The target's thread plays, the
// peer's thread takes.
class Answers {
public:
    void play(std::string_view input) {
        const std::lock_guard lock(mutex_);
        pieces_ = Pieces(input);
    }
    // Nothing when they are used up.
    std::optional<std::string> next() {
        const std::lock_guard lock(mutex_);
        if (pieces_.empty()) return std::nullopt;
        return std::string(pieces_.next());
    }

private:
    std::mutex mutex_;
    Pieces pieces_{{}};
};

// What a peer was asked, in order. The peer's thread adds, the target's thread takes: an answer that it has got belongs
// to a request that is here.
class Requests {
public:
    void add(std::string_view request) {
        const std::lock_guard lock(mutex_);
        requests_.emplace_back(request);
    }
    // Nothing when all are taken.
    std::optional<std::string> take() {
        const std::lock_guard lock(mutex_);
        if (requests_.empty()) return std::nullopt;
        std::string first = std::move(requests_.front());
        requests_.pop_front();
        return first;
    }

private:
    std::mutex mutex_;
    std::deque<std::string> requests_;
};

inline std::string_view text(const uint8_t *data, size_t size) { return {reinterpret_cast<const char *>(data), size}; }

void check(bool holds);  // aborts when it does not

// Writes a file below /dev/shm that is removed at the end, and returns its path.
const std::string &file(std::string_view content);

}  // namespace stage
