// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vxutils/configd.h>
#include <vxutils/strutil.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "vxutils/internal/errno_keeper.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/retry.h"
#include "vxutils/internal/sigpipe.h"
#include "vxutils/internal/text_hash.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char *socketDirectory = "/var/run/configd";
constexpr auto answerTimeout = 10s;
constexpr mode_t clientSocketMode = 0777;  // the daemon may run as another user
constexpr int neverClosed = 1;             // standard output, whatever a daemon has put there
constexpr size_t queryKeySize = 255;       // keys made from a format, one byte less than a record holds
constexpr int changeAnswerSize = CONFIGD_MSG_LEN - 1;
constexpr int changeAnswerMax = changeAnswerSize - 1;  // what configd_recv() can bring back of it
constexpr int trailerLength = 2;                       // behind every value: newline and NUL
constexpr std::string_view doneRequest = "Done\n";

using Message = std::array<char, CONFIGD_MSG_LEN>;

static_assert(offsetof(configd_entry, key) == 2 * sizeof(void *) && sizeof(configd_entry) == 1280 + 2 * sizeof(void *));
static_assert(offsetof(configd_handle, count) == 516);

// An entry of the query list with what finds it: the entries of a handle are also the nodes of a trie over the keys'
// hashes, two bits a level, whose root is the list's first entry. Five hundred keys are six steps deep, and the trie
// needs neither room in the handle nor memory of its own.
struct Query {
    configd_entry entry;
    uint32_t hash;
    std::array<Query *, 4> children;
};
static_assert(offsetof(Query, entry) == 0 && offsetof(configd_entry, list) == 0);

configd_entry *entryOf(list_link *link) { return reinterpret_cast<configd_entry *>(link); }

// The first link of the list, null when there is none; a caller's own zeroed handle counts as empty.
list_link *firstLink(configd_handle *handle) {
    list_link *first = handle->queries.next;
    return first == &handle->queries ? nullptr : first;
}

// Where the key is linked, or where it would be.
struct Place {
    Query *found;
    Query **link;  // null for the first entry of all
};

Place findQuery(configd_handle *handle, const char *key, uint32_t hash) {
    Place place{reinterpret_cast<Query *>(firstLink(handle)), nullptr};
    for (uint32_t bits = hash; place.found != nullptr; bits = bits >> 2 | bits << 30) {
        if (place.found->hash == hash && std::strcmp(place.found->entry.key, key) == 0) return place;
        place.link = &place.found->children[bits & 3];
        place.found = *place.link;
    }
    return place;
}

using Key = std::array<char, queryKeySize>;

// False when the format yields nothing that can be a key.
__attribute__((format(printf, 2, 0))) bool formatKey(Key &key, const char *format, va_list args) {
    if (std::strchr(format, '%') == nullptr) {
        (void)strlcpy(key.data(), format, key.size());  // most keys are plain texts, and a cached value is read often
    } else if (std::vsnprintf(key.data(), key.size(), format, args) < 0) {
        return false;
    }
    return key[0] != '\0';
}

int addQuery(configd_handle *handle, const char *key) {
    const size_t length = std::strlen(key);
    const uint32_t hash = vx::textHash(key, length);
    const Place place = findQuery(handle, key, hash);
    if (place.found != nullptr) return 0;
    if (handle->count >= CONFIGD_MAX_QUERIES) return -1;

    auto *query = static_cast<Query *>(zalloc(sizeof(Query)));
    if (query == nullptr) return -1;
    std::memcpy(query->entry.key, key, length);
    query->hash = hash;
    if (handle->queries.next == nullptr) handle->queries = {&handle->queries, &handle->queries};
    list_add_tail(&query->entry.list, &handle->queries);
    if (place.link != nullptr) *place.link = query;
    ++handle->count;
    return 0;
}

sockaddr_un addressOf(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)strlcpy(address.sun_path, path, sizeof address.sun_path);
    return address;
}

void removeSocketFile(const char *path) {
    if (::access(path, R_OK) == 0) ::unlink(path);
}

// sendto() itself gives up after this long; a daemon that stopped reading would block it for ever.
void limitSendTime(int fd, Clock::duration limit) {
    const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(limit).count();
    timeval time{};
    time.tv_sec = microseconds / 1000000;
    time.tv_usec = microseconds % 1000000;
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

// A signal ended the wait for the daemon to take a request: waits on, for what remains of the time.
ssize_t sendAgain(int fd, const char *data, size_t length, const sockaddr_un &address, Clock::time_point deadline) {
    ssize_t sent = -1;
    errno = EINTR;
    while (sent == -1 && errno == EINTR) {
        const auto left = deadline - Clock::now();
        if (left < 1us) {
            errno = EAGAIN;
            break;
        }
        limitSendTime(fd, left);
        sent = ::sendto(fd, data, length, 0, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    }
    const vx::ErrnoKeeper keeper;
    limitSendTime(fd, answerTimeout);
    return sent;
}

bool waitForAnswer(int fd) {
    const auto deadline = Clock::now() + answerTimeout;
    pollfd waiting{fd, POLLIN, 0};  // unlike select(), poll() carries descriptors of any number
    Clock::duration left = answerTimeout;
    for (;;) {
        const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        const int ready = ::poll(&waiting, 1, static_cast<int>(milliseconds));
        if (ready != -1 || errno != EINTR) return ready > 0;
        left = deadline - Clock::now();
        if (left <= 0s) return false;
    }
}

// A reconnected socket has the name of the old one: the answer to a request that was given up would be taken for the
// answer to the next.
void discardLateAnswers(const configd_handle *handle) {
    char byte;
    while (handle->fd >= 0 && ::recv(handle->fd, &byte, sizeof byte, MSG_DONTWAIT) >= 0) continue;
}

// False (and logged) when the request did not get out whole.
bool sendRequest(configd_handle *handle, const char *request, int length) {
    discardLateAnswers(handle);
    if (configd_send(handle, request, length) >= length) return true;
    vx::log(LOG_ERR, "unable to send query to configd");
    return false;
}

void reconnect(configd_handle *handle) {
    __configd_close(handle);
    (void)__configd_open(handle);
}

int reconnected(configd_handle *handle, int result) {
    reconnect(handle);
    return result;
}

// Text of a record's field, which a caller may have filled to its last byte.
template <size_t size>
std::string_view fieldText(const char (&field)[size]) {
    return {field, ::strnlen(field, size)};
}

// Appends within the room that an echo can bring back; -1 when the text does not fit.
int append(Message &request, int length, std::string_view text) {
    if (length < 0 || text.size() >= static_cast<size_t>(changeAnswerMax - length)) return -1;
    std::memcpy(request.data() + length, text.data(), text.size());
    return length + static_cast<int>(text.size());
}

// Writes "key=value\n" of every record; its length without the NUL, -1 when it does not fit.
int buildChange(Message &request, const configd_entry *entry) {
    int length = 0;
    for (; entry->key[0] != '\0' && length >= 0; ++entry) {
        length = append(request, length, fieldText(entry->key));
        length = append(request, length, "=");
        length = append(request, length, fieldText(entry->value));
        length = append(request, length, "\n");
    }
    if (length >= 0) request[static_cast<size_t>(length)] = '\0';
    return length;
}

int getArray(configd_handle *handle, configd_entry *entry) {
    for (; entry->key[0] != '\0'; ++entry) {
        if (configd_prepare_get(handle, entry) == -1) return -1;
    }
    return 0;
}

int getQueries(configd_handle *handle) {
    for (list_link *link = firstLink(handle); link != nullptr && link != &handle->queries; link = link->next) {
        if (configd_prepare_get(handle, entryOf(link)) == -1) return -1;
    }
    return 0;
}

}  // namespace

configd_handle *configd_open(void) {
    auto *handle = static_cast<configd_handle *>(zalloc(sizeof(configd_handle)));
    if (handle == nullptr) {
        vx::log(LOG_ERR, "no mem for configd connection");
        return nullptr;
    }
    handle->queries = {&handle->queries, &handle->queries};
    handle->fd = -1;
    if (__configd_open(handle) == -1) {
        configd_close(handle);
        return nullptr;
    }
    return handle;
}

void configd_close(configd_handle *handle) {
    if (handle == nullptr) return;
    if (handle->fd != -1) __configd_close(handle);
    configd_clear(handle);
    std::free(handle);
}

int configd_add_query(configd_handle *handle, const char *format, ...) {
    if (handle == nullptr || format == nullptr) return -1;
    Key key;
    va_list args;
    va_start(args, format);
    const bool usable = formatKey(key, format, args);
    va_end(args);
    return usable ? addQuery(handle, key.data()) : -1;
}

const char *configd_fetch(configd_handle *handle, const char *format, ...) {
    if (handle == nullptr || format == nullptr) return "";
    if (handle->fetched == 0) {
        if (configd_get(handle, nullptr) != 0) {
            vx::log(LOG_ERR, "configd_get failed");
            return "";
        }
        handle->fetched = 1;
    }
    Key key{};
    va_list args;
    va_start(args, format);
    const bool usable = formatKey(key, format, args);
    va_end(args);
    if (usable) {
        const Query *query = findQuery(handle, key.data(), vx::textHash(key.data(), std::strlen(key.data()))).found;
        if (query != nullptr) return query->entry.value;
    }
    vx::log(LOG_DEBUG, "key '%s' not found", key.data());
    return "";
}

int configd_get(configd_handle *handle, configd_entry *entries) {
    if (handle == nullptr) return -1;
    const int result = entries != nullptr ? getArray(handle, entries) : getQueries(handle);
    return result == 0 ? 0 : reconnected(handle, -1);
}

int configd_set(configd_handle *handle, const configd_entry *entries) {
    if (handle == nullptr || entries == nullptr || entries[0].key[0] == '\0') return -1;
    Message request;
    const int length = buildChange(request, entries);
    if (length <= 0) return -1;

    const int sent = length + 1;
    if (!sendRequest(handle, request.data(), sent)) return reconnected(handle, -2);
    Message answer;
    const int received = configd_recv(handle, answer.data(), changeAnswerSize);
    if (received != sent) {
        vx::log(LOG_ERR, "no response from configd (%d != %d)", received, sent);
        return reconnected(handle, -3);
    }
    if (std::memcmp(answer.data(), request.data(), static_cast<size_t>(sent)) != 0) {
        vx::log(LOG_ERR, "invalid response from configd");
        return reconnected(handle, -4);
    }
    return 0;
}

int configd_done(configd_handle *handle) {
    if (handle == nullptr) return -1;
    if (!sendRequest(handle, doneRequest.data(), static_cast<int>(doneRequest.size()))) return reconnected(handle, -2);
    Message answer;
    const int received = configd_recv(handle, answer.data(), changeAnswerSize);
    if (received == 0) {
        vx::log(LOG_ERR, "no response from configd");
        return reconnected(handle, -3);
    }
    const char *text = received > 0 ? answer.data() : "";
    if (std::strcmp(text, "Ready") == 0) return 0;
    if (std::strcmp(text, "Busy") == 0) return 1;
    vx::log(LOG_ERR, "invalid response <%s> from configd", text);
    return reconnected(handle, -4);
}

void configd_clear(configd_handle *handle) {
    if (handle == nullptr) return;
    while (list_link *link = firstLink(handle)) {
        list_del(link);
        std::free(entryOf(link));
        --handle->count;
    }
    handle->fetched = 0;
}

int configd_send(configd_handle *handle, const char *data, int length) {
    if (handle == nullptr || handle->fd < 0 || data == nullptr || length <= 0) return -1;
    const sockaddr_un address = addressOf(handle->server_path);
    const auto size = static_cast<size_t>(length);
    const auto deadline = Clock::now() + answerTimeout;
    ssize_t sent = ::sendto(handle->fd, data, size, 0, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    if (sent == -1 && errno == EINTR) sent = sendAgain(handle->fd, data, size, address, deadline);
    return static_cast<int>(sent);
}

int configd_recv(configd_handle *handle, char *data, int size) {
    if (handle == nullptr || handle->fd < 0 || data == nullptr || size <= 0) return -1;
    const vx::SigpipeScope ignored;
    if (!waitForAnswer(handle->fd)) return -1;
    const auto room = static_cast<size_t>(size);
    std::memset(data, 0, room);
    const ssize_t received =
        vx::retryEintr([&] { return ::recvfrom(handle->fd, data, room - 1, 0, nullptr, nullptr); });
    if (received >= 0) data[received] = '\0';
    return static_cast<int>(received);
}

int configd_prepare_get(configd_handle *handle, configd_entry *entry) {
    if (handle == nullptr || entry == nullptr || entry->key[0] == '\0') return -1;
    Message message;
    const std::string_view key = fieldText(entry->key);
    const int length =
        std::snprintf(message.data(), message.size() - 1, "?%.*s\n", static_cast<int>(key.size()), key.data()) + 1;
    if (!sendRequest(handle, message.data(), length)) return -1;
    const int received = configd_recv(handle, message.data(), CONFIGD_MSG_LEN);
    if (received < trailerLength) {
        vx::log(LOG_ERR, "no response from configd (len %d)", received);
        return -1;
    }
    message[static_cast<size_t>(received - trailerLength)] = '\0';
    (void)strlcpy(entry->value, message.data(), sizeof entry->value);
    return 0;
}

int __configd_open(configd_handle *handle) {
    if (handle == nullptr) return -1;
    if (handle->fd != -1) __configd_close(handle);
    handle->fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (handle->fd == -1) {
        vx::log(LOG_ERR, "cannot open socket to configd");
        return -1;
    }
    (void)std::snprintf(handle->server_path, sizeof handle->server_path, "%s/daemon.sock", socketDirectory);
    (void)std::snprintf(handle->client_path, sizeof handle->client_path, "%s/client.%d.%p", socketDirectory, ::getpid(),
                        static_cast<void *>(handle));
    removeSocketFile(handle->client_path);  // left by an earlier process of the same number

    const sockaddr_un address = addressOf(handle->client_path);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(address.sun_path));
    if (::bind(handle->fd, reinterpret_cast<const sockaddr *>(&address), length) == -1) {
        vx::log(LOG_ERR, "cannot bind to configd");
        __configd_close(handle);
        return -1;
    }
    limitSendTime(handle->fd, answerTimeout);
    ::chmod(handle->client_path, clientSocketMode);
    return 0;
}

void __configd_close(configd_handle *handle) {
    if (handle == nullptr) return;
    if (handle->fd >= 0 && handle->fd != neverClosed) ::close(handle->fd);
    handle->fd = -1;
    if (handle->client_path[0] != '\0') removeSocketFile(handle->client_path);
    handle->server_path[0] = '\0';
    handle->client_path[0] = '\0';
}
