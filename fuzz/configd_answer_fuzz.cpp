// SPDX-License-Identifier: MIT
// A configuration daemon whose answers are the pieces of the input; when they are used up it answers with nothing. For
// the piece "=" it sends the request back. Results, values and requests must be those that a slow
// reading of the protocol predicts.
#include <sys/stat.h>
#include <syslog.h>
#include <vxutils/configd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "fuzz/stage.h"

namespace {

using stage::check;

constexpr const char *directory = "/var/run/configd";

std::string answerTo(std::string_view request, std::string_view piece) {
    return std::string(piece == "=" ? request : piece);
}

stage::Answers answers;
stage::Requests requests;

std::string answer(std::string_view request) {
    requests.add(request);
    return answerTo(request, answers.next().value_or(""));
}

// The rules once more: every call is told what it must ask, and what the daemon then answers.
class Model {
public:
    explicit Model(std::string_view input) : pieces_(input) {}

    // Reads keys until one fails, which leaves its value as it was.
    template <size_t count>
    int get(const std::array<std::string, count> &keys, std::array<std::string, count> &values) {
        for (size_t i = 0; i < count; ++i) {
            const std::string got = ask("?" + keys[i] + "\n" + '\0', CONFIGD_MSG_LEN - 1);
            if (got.size() < 2) return -1;
            values[i] = std::string(got.substr(0, got.size() - 2).c_str()).substr(0, CONFIGD_VALUE_LEN - 1);
        }
        return 0;
    }

    int set(const std::string &key, const std::string &value) {
        const std::string request = key + "=" + value + "\n" + '\0';
        const std::string got = ask(request, CONFIGD_MSG_LEN - 2);
        if (got.size() != request.size()) return -3;
        return got == request ? 0 : -4;
    }

    int done() {
        const std::string got = ask("Done\n", CONFIGD_MSG_LEN - 2);
        if (got.empty()) return -3;
        const std::string text = got.c_str();
        return text == "Ready" ? 0 : text == "Busy" ? 1 : -4;
    }

private:
    // Returns as much of the answer as a caller has room for.
    std::string ask(const std::string &request, size_t room) {
        check(requests.take() == request);
        return answerTo(request, pieces_.next()).substr(0, room);
    }

    stage::Pieces pieces_;
};

// A handle can be used after every call, failed or not.
void checkConnected(const configd_handle *handle) {
    check(handle->fd >= 0 && std::strncmp(handle->client_path, directory, std::strlen(directory)) == 0);
    check(std::filesystem::exists(handle->client_path));
}

const std::array<std::string, 2> keys = {"wan.0.apn", "wan.1.pin"};

// Fetches a query list, which the calls for it do until the daemon has answered for all keys.
void checkQueries(configd_handle *handle, Model &model) {
    std::array<std::string, 2> values;
    configd_add_query(handle, "wan.%d.apn", 0);
    configd_add_query(handle, "wan.%d.pin", 1);
    check(configd_get(handle, nullptr) == model.get(keys, values));
    bool fetched = false;
    for (size_t i = 0; i < keys.size(); ++i) {
        const std::string value = configd_fetch(handle, "%s", keys[i].c_str());
        fetched = fetched || model.get(keys, values) == 0;
        check(value == (fetched ? values[i] : ""));
        check((handle->fetched == 1) == fetched);
    }
    checkConnected(handle);
}

// Reads two values into an array and writes the first one back.
void checkArray(configd_handle *handle, Model &model) {
    std::array<std::string, 2> values = {"value", "another"};
    configd_entry entries[3]{};
    for (size_t i = 0; i < keys.size(); ++i) {
        std::strcpy(entries[i].key, keys[i].c_str());
        std::strcpy(entries[i].value, values[i].c_str());
    }
    check(configd_get(handle, entries) == model.get(keys, values));
    for (size_t i = 0; i < keys.size(); ++i) check(entries[i].value == values[i] && entries[i].key == keys[i]);
    checkConnected(handle);

    entries[1].key[0] = '\0';
    check(configd_set(handle, entries) == model.set(keys[0], values[0]));
    checkConnected(handle);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool started = [] {
        ::setlogmask(LOG_MASK(LOG_DEBUG));  // the messages go nowhere
        ::mkdir(directory, 0755);
        stage::startDatagramPeer("/var/run/configd/daemon.sock", answer);
        return true;
    }();
    check(started);
    if (size > 65536) return 0;
    answers.play(stage::text(data, size));
    Model model(stage::text(data, size));
    configd_handle *const handle = configd_open();
    check(handle != nullptr);
    checkQueries(handle, model);
    checkArray(handle, model);
    check(configd_done(handle) == model.done());
    checkConnected(handle);
    configd_close(handle);
    check(!requests.take().has_value());
    const std::filesystem::directory_iterator files(directory);
    check(std::distance(begin(files), end(files)) == 1);  // the daemon's socket
    return 0;
}
