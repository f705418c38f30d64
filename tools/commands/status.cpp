// SPDX-License-Identifier: MIT
// vx status: files of the status trees.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/statusinterface.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <map>
#include <memory>
#include <set>
#include <thread>
#include <utility>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/fd.h"
#include "core/file.h"
#include "core/follow.h"
#include "core/owned.h"
#include "core/watch.h"

namespace tool {

namespace {

struct Tree {
    BasePath base;
    std::string root;
    bool lasting;
};

Tree treeOf(const Arguments &arguments) {
    if (arguments.has("nv")) return {BASEPATH_NVSTATUS, "/nvstatus", true};
    return {BASEPATH_STATUS, "/tmp/status", false};
}

// A name as it is used below the tree: with single slashes and none at its ends, and never out of the tree.
std::string checkedName(std::string_view word) {
    std::string name;
    for (size_t at = 0; at <= word.size();) {
        const size_t end = std::min(word.find('/', at), word.size());
        const std::string_view part = word.substr(at, end - at);
        at = end + 1;
        if (part == "." || part == "..")
            throw Usage{"NAME '" + std::string(word) + "' holds '" + std::string(part) + "'"};
        if (part.empty()) continue;
        if (!name.empty()) name += '/';
        name += part;
    }
    if (name.empty()) throw Usage{"NAME is empty"};
    return name;
}

// "" for the tree itself.
std::string pathOf(const Tree &tree, const std::string &name) {
    return name.empty() ? tree.root : tree.root + "/" + name;
}

Record recordOf(const std::string &name, const std::optional<std::string> &value) {
    return {{"name", name}, {"value", value ? Value(*value) : Value()}};
}

// ---- list

const char *typeName(unsigned char type) {
    switch (type) {
        case DT_REG:
            return "file";
        case DT_LNK:
            return "link";
        case DT_FIFO:
            return "fifo";
        default:
            return "other";
    }
}

using Files = std::vector<std::pair<std::string, unsigned char>>;  // name and type
using Directory = Owned<DIR, &::closedir>;

// Files below a directory of the tree. Names that begin with a dot are the temporary files of writers. Each directory
// is watched, where that is wanted, before it is read: nothing is missed between.
void collect(const Tree &tree, const std::string &name, Files &files, DirectoryWatch *watch) {
    const std::string path = pathOf(tree, name);
    if (watch != nullptr) watch->add(path);
    const Directory directory(::opendir(path.c_str()));
    if (!directory) throw systemFailure(path);
    while (const dirent *entry = ::readdir(directory.get())) {
        if (entry->d_name[0] == '.') continue;
        const std::string below = name.empty() ? entry->d_name : name + "/" + entry->d_name;
        if (entry->d_type != DT_DIR) {
            files.emplace_back(below, entry->d_type);
            continue;
        }
        try {
            collect(tree, below, files, watch);
        } catch (const Failure &) {
            if (::access(pathOf(tree, below).c_str(), F_OK) == 0) throw;  // else it has gone
        }
    }
}

bool isDirectory(const std::string &path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

int list(const Arguments &arguments, Output &out) {
    const Tree tree = treeOf(arguments);
    Files files;
    collect(tree, arguments.size() > 0 ? checkedName(arguments[0]) : "", files, nullptr);
    std::sort(files.begin(), files.end());
    std::vector<Record> records;
    records.reserve(files.size());
    for (const auto &[name, type] : files) records.push_back({{"name", name}, {"type", typeName(type)}});
    out.print(records, Plain::name);
    return statusDone;
}

// ---- get, set, remove, send

int get(const Arguments &arguments, Output &out) {
    const Tree tree = treeOf(arguments);
    std::vector<Record> values;
    std::vector<std::string> names;
    for (const std::string &word : arguments.words()) names.push_back(checkedName(word));
    const bool exact = out.raw() && !out.json() && names.size() == 1;
    for (const std::string &name : names) {
        std::string value = readFile(pathOf(tree, name), name);
        if (exact) {
            out.write(value);
            return statusDone;
        }
        values.push_back(recordOf(name, withoutLineEnd(std::move(value))));
    }
    out.print(values, values.size() == 1 ? Plain::value : Plain::pair);
    return statusDone;
}

// Makes the name's directory as a daemon makes its own.
void makeDirectory(const Tree &tree, const std::string &name) {
    const size_t slash = name.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : "/" + name.substr(0, slash);
    if (isDirectory(tree.root + directory)) return;
    StatusInterface status;
    errno = 0;
    if (!status.setup(tree.base, directory.c_str())) throw systemFailure(tree.root + directory);
}

int set(const Arguments &arguments, Output &out) {
    const Tree tree = treeOf(arguments);
    const std::string name = checkedName(arguments[0]);
    if (arguments.has("stdin") != (arguments.size() == 1)) throw Usage{"one of VALUE and --stdin is needed"};
    const std::string value = arguments.has("stdin") ? readInput() : arguments[1];
    makeDirectory(tree, name);
    replaceFile(pathOf(tree, name), name, value, tree.lasting);
    out.done();
    return statusDone;
}

int remove(const Arguments &arguments, Output &out) {
    const Tree tree = treeOf(arguments);
    const std::string name = checkedName(arguments[0]);
    if (::unlink(pathOf(tree, name).c_str()) != 0) throw systemFailure(name);
    out.done();
    return statusDone;
}

int send(const Arguments &arguments, Output &out) {
    const Tree tree = treeOf(arguments);
    const std::string name = checkedName(arguments[0]);
    const std::string &data = arguments[1];
    if (data.empty()) throw Usage{"DATA is empty"};
    if (data.size() > PIPE_BUF)
        throw Usage{"DATA is longer than " + std::to_string(PIPE_BUF) + " bytes, which may arrive mixed with others'"};
    const Fd fd(::open(pathOf(tree, name).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (!fd.valid() && errno == ENXIO) throw Failure(name, "no process reads this FIFO");
    struct stat status {};
    if (!fd.valid() || ::fstat(fd.get(), &status) != 0) throw systemFailure(name);
    if (!S_ISFIFO(status.st_mode)) throw Failure(name, "is not a FIFO");
    ::signal(SIGPIPE, SIG_IGN);
    const ssize_t sent = ::write(fd.get(), data.data(), data.size());
    if (sent < 0 && errno == EAGAIN) throw Failure(name, "the FIFO is full: who has it open does not read");
    if (sent < 0) throw systemFailure(name);
    out.done();
    return statusDone;
}

// ---- watch

class Watcher {
public:
    Watcher(const Arguments &arguments, Output &out) : tree_(treeOf(arguments)), follow_(arguments, out) {
        for (const std::string &word : arguments.words()) targets_.push_back(checkedName(word));
        form_ = targets_.size() == 1 && !isDirectory(pathOf(tree_, targets_[0])) ? Plain::value : Plain::pair;
        if (targets_.empty()) targets_.emplace_back();
    }

    void run() {
        scan();
        while (!follow_.over()) {
            if (follow_.wait(watch_.fd()) != Follow::Event::ready) return;
            bool all = false;
            std::vector<std::string> changed;
            for (const auto &change : watch_.changes()) {
                // Another set of directories, or changes that were lost: everything is looked at again.
                if (change.name.empty() || change.isDirectory) {
                    all = true;
                } else if (isShown(change) && !(change.isNew && isPlainFile(change))) {
                    changed.push_back(nameOf(change));
                }
            }
            if (all) {
                scan();
            } else {
                for (const std::string &name : changed) {
                    if (isTarget(name)) look(name);
                }
            }
            lookAtEmptied();
        }
    }

private:
    static bool isPlainFile(const DirectoryWatch::Change &change) {
        struct stat status {};
        return ::lstat((change.directory + "/" + change.name).c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
               status.st_nlink == 1;
    }

    // Names that begin with a dot are temporary files, unless one was asked for.
    bool isShown(const DirectoryWatch::Change &change) const {
        return change.name[0] != '.' || std::find(targets_.begin(), targets_.end(), nameOf(change)) != targets_.end();
    }

    // Name within the tree; empty for what is outside.
    std::string nameOf(const DirectoryWatch::Change &change) const {
        const std::string path = change.directory + "/" + change.name;
        return path.rfind(tree_.root + "/", 0) == 0 ? path.substr(tree_.root.size() + 1) : std::string();
    }

    bool isTarget(const std::string &name) const {
        if (name.empty()) return false;
        return std::any_of(targets_.begin(), targets_.end(), [&](const std::string &target) {
            return target.empty() || name == target || name.rfind(target + "/", 0) == 0;
        });
    }

    // Watches every directory that matters and looks at every file.
    void scan() {
        std::set<std::string> names;  // those that were there before, and those that are there now
        for (const auto &[name, value] : values_) names.insert(name);
        for (const std::string &target : targets_) {
            watchAbove(target);
            if (isDirectory(pathOf(tree_, target))) {
                Files files;
                collect(tree_, target, files, &watch_);
                for (const auto &[name, type] : files) names.insert(name);
            } else if (!target.empty()) {
                names.insert(target);
            }
        }
        for (const std::string &name : names) look(name);
    }

    // The directories above a target, so that its own making is noticed; above the tree only while there is none.
    void watchAbove(const std::string &target) {
        const std::string above = tree_.root.substr(0, std::max<size_t>(tree_.root.rfind('/'), 1));
        watch_.add(above);
        if (watch_.add(tree_.root)) watch_.remove(above);
        for (size_t slash = target.find('/'); slash != std::string::npos; slash = target.find('/', slash + 1)) {
            watch_.add(pathOf(tree_, target.substr(0, slash)));
        }
    }

    // setStatus() empties a file before it writes the value; who looks in between must not tell of an empty one.
    void lookAtEmptied() {
        if (emptied_.empty()) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        for (const std::string &name : std::exchange(emptied_, {})) look(name, true);
    }

    // Tells of a file whose value is another than the last that was told.
    void look(const std::string &name, bool again = false) {
        const std::string path = pathOf(tree_, name);
        std::optional<std::string> value;
        try {
            struct stat status {};
            if (::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) watch_.add(path);
            value = withoutLineEnd(readFile(path, name));
        } catch (const Failure &) {
            // Not there, a FIFO, or not for this user: no value.
        }
        const auto known = values_.find(name);
        if (known == values_.end() ? !value : value == known->second) return;
        if (known != values_.end() && value == "" && !again) {
            emptied_.insert(name);
            return;
        }
        if (value) {
            values_[name] = *value;
        } else {
            values_.erase(known);
        }
        follow_.print(recordOf(name, value), form_);
    }

    Tree tree_;
    Follow follow_;
    DirectoryWatch watch_;
    std::vector<std::string> targets_;
    std::map<std::string, std::string> values_;  // those that were told last
    std::set<std::string> emptied_;              // looked at again before an empty value is told
    Plain form_ = Plain::pair;
};

int watch(const Arguments &arguments, Output &out) {
    Watcher(arguments, out).run();
    return statusDone;
}

std::vector<std::string> nameWords(const Arguments &given) {
    Files files;
    collect(treeOf(given), "", files, nullptr);
    std::vector<std::string> words;
    for (const auto &[file, type] : files) words.push_back(file);
    return words;
}

std::vector<std::string> directoryWords(const Arguments &given) {
    std::vector<std::string> words;
    for (const std::string &file : nameWords(given)) {
        for (size_t slash = file.rfind('/'); slash != std::string::npos && slash > 0;
             slash = file.rfind('/', slash - 1)) {
            words.push_back(file.substr(0, slash));
        }
    }
    std::sort(words.begin(), words.end());
    words.erase(std::unique(words.begin(), words.end()), words.end());
    return words;
}

constexpr Option options[] = {{0, "nv", nullptr, "the tree that survives a reboot, /nvstatus"}};
constexpr Option setOptions[] = {{0, "stdin", nullptr, "take the value from standard input, whatever bytes it has"}};
constexpr Argument directory[] = {{"DIR", Count::optional, directoryWords}};
constexpr Argument name[] = {{"NAME", Count::one, nameWords}};
constexpr Argument names[] = {{"NAME", Count::many, nameWords}};
constexpr Argument watched[] = {{"NAME", Count::any, nameWords}};
constexpr Argument assignment[] = {{"NAME", Count::one, nameWords}, {"VALUE", Count::optional}};
constexpr Argument message[] = {{"NAME", Count::one, nameWords}, {"DATA", Count::one}};

constexpr Verb verbs[] = {
    {"list", "print the names of all files, or of those below a directory", {}, directory, list},
    {"get", "print values", {}, names, get},
    {"set", "replace a value in one step", setOptions, assignment, set},
    {"remove", "remove a file", {}, name, remove},
    {"watch", "print values, and each again when it changes", {}, watched, watch, true},
    {"send", "write data to a FIFO that a daemon reads", {}, message, send},
};

}  // namespace

const Command statusCommand{"status", "status files that daemons publish", options, verbs};

}  // namespace tool
