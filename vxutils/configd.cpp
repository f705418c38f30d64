// SPDX-License-Identifier: MIT
#include <vxutils/configd.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vxutils/strutil.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "vxutils/internal/errno_keeper.h"
#include "vxutils/internal/fd.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/retry.h"
#include "vxutils/internal/sigpipe.h"
#include "vxutils/internal/text_hash.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char *socketDirectory = "/var/run/configd";
constexpr auto answerTimeout = 10s;
constexpr auto promptAnswer = 1s;          // after a later answer, a second one to the same request is expected
constexpr int mostDiscarded = 4096;        // more than a socket's queue holds
constexpr mode_t clientSocketMode = 0777;  // the daemon may run as another user
constexpr int neverClosed = 1;             // Quirk Q40: the number of standard output
constexpr size_t queryKeySize = 255;       // keys made from a format, one byte less than a record holds
constexpr int changeAnswerSize = CONFIGD_MSG_LEN - 1;
constexpr int changeAnswerMax = changeAnswerSize - 1;  // what configd_recv() can bring back of it
constexpr int trailerLength = 2;                       // after every value: newline and NUL
constexpr std::string_view doneRequest = "Done\n";

using Message = std::array<char, CONFIGD_MSG_LEN>;

static_assert(offsetof(configd_entry, key) == 2 * sizeof(void *) && sizeof(configd_entry) == 1280 + 2 * sizeof(void *));
static_assert(offsetof(configd_handle, count) == 516);

// --- query list

// An entry of the query list. The entries of a handle are also the nodes of a trie over the hashes of their keys, with
// two bits a level; its root is the list's first entry. The trie needs neither a member of the handle, whose layout is
// fixed, nor an allocation. A cached value takes 510 instructions on the board with 20 keys and 540 with 512; a walk
// along the list would take 1350 and 26800.
struct Query {
    configd_entry entry;
    uint32_t hash;
    std::array<Query *, 4> children;
};
static_assert(offsetof(Query, entry) == 0 && offsetof(configd_entry, list) == 0);

configd_entry *entryOf(list_link *link) { return reinterpret_cast<configd_entry *>(link); }

// Returns the first link of the list, null if it is empty. The list of a caller's zeroed handle has no head yet and
// counts as empty.
list_link *firstLink(configd_handle *handle) {
    list_link *first = handle->queries.next;
    return first == &handle->queries ? nullptr : first;
}

// `key` is shorter than a record's field.
bool hasKey(const configd_entry &entry, std::string_view key) {
    return std::memcmp(entry.key, key.data(), key.size()) == 0 && entry.key[key.size()] == '\0';
}

// The result of a search in the trie.
struct Place {
    Query *found;  // the entry with the key, or null
    Query **link;  // where it is linked, or would be; null for the root
};

Place findQuery(configd_handle *handle, std::string_view key, uint32_t hash) {
    Place place{reinterpret_cast<Query *>(firstLink(handle)), nullptr};
    for (uint32_t bits = hash; place.found != nullptr; bits = bits >> 2 | bits << 30) {
        if (place.found->hash == hash && hasKey(place.found->entry, key)) return place;
        place.link = &place.found->children[bits & 3];
        place.found = *place.link;
    }
    return place;
}

using Key = std::array<char, queryKeySize>;

// Returns the formatted key, cut to what `room` holds; data() is null if the format cannot be printed. A format without
// conversions is returned as it is, because most keys are plain texts and configd_fetch() is called often.
__attribute__((format(printf, 2, 0))) std::string_view makeKey(Key &room, const char *format, va_list args) {
    const std::string_view plain = format;
    if (plain.find('%') == std::string_view::npos) return plain.substr(0, room.size() - 1);
    if (std::vsnprintf(room.data(), room.size(), format, args) < 0) return {};
    return room.data();
}

int addQuery(configd_handle *handle, std::string_view key) {
    const uint32_t hash = vx::textHash(key.data(), key.size());
    const Place place = findQuery(handle, key, hash);
    if (place.found != nullptr) return 0;
    if (handle->count >= CONFIGD_MAX_QUERIES) return -1;

    auto *query = static_cast<Query *>(zalloc(sizeof(Query)));
    if (query == nullptr) return -1;
    std::memcpy(query->entry.key, key.data(), key.size());
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

// --- names of sockets

// Returns whether there was a file.
bool removeSocketFile(const char *path) {
    if (::access(path, R_OK) == -1) return false;
    ::unlink(path);
    return true;
}

bool bindTo(int fd, const char *path) {
    const sockaddr_un address = addressOf(path);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(address.sun_path));
    return ::bind(fd, reinterpret_cast<const sockaddr *>(&address), length) == 0;
}

// Does not follow a link that has replaced the socket's file. A failure is harmless if the daemon runs as root.
void openToAll(const char *path) {
    [[maybe_unused]] const int result = ::fchmodat(AT_FDCWD, path, clientSocketMode, AT_SYMLINK_NOFOLLOW);
}

// The daemon answers to the name that the asking socket was bound to, however long it takes, and an answer does not
// tell which request it belongs to. A name to which an answer may still come is therefore never used again for a socket
// that receives answers. A handle's first name is made from its address; these are the handles whose first name must
// not be used again. When there are more than the table holds, every handle counts as one.
std::array<std::atomic<const configd_handle *>, 128> distrusted{};
std::atomic<size_t> distrustedCount{0};

bool isListed(const configd_handle *handle) {
    const auto end = distrusted.begin() + std::min<size_t>(distrustedCount, distrusted.size());
    return std::find(distrusted.begin(), end, handle) != end;
}

bool isDistrusted(const configd_handle *handle) { return distrustedCount > distrusted.size() || isListed(handle); }

void distrust(const configd_handle *handle) {
    if (isDistrusted(handle)) return;
    const size_t index = distrustedCount++;
    if (index < distrusted.size()) distrusted[index] = handle;
}

// The daemon has been seen to answer a request twice. From then on no name receives more than one answer.
std::atomic<bool> answersAreRepeated{false};

// Returns the number of a name that no socket had before. It is odd, unlike the address of a handle. The numbers rise
// with the clock, so that a later process with the same id does not repeat them.
uint64_t nextNumber() {
    static std::atomic<uint64_t> latestNumber{0};
    const auto now = static_cast<uint64_t>(Clock::now().time_since_epoch().count());
    uint64_t latest = latestNumber;
    uint64_t next = 0;
    do next = std::max(now, latest + 2) | 1;
    while (!latestNumber.compare_exchange_weak(latest, next));
    return next;
}
static_assert(alignof(configd_handle) % 2 == 0);

// Binds the socket to a name that no socket had before. The handle's first name is bound to a socket that is closed at
// once, so that what the daemon still sends there is refused.
bool bindToNewName(const configd_handle *handle) {
    std::array<char, sizeof handle->client_path> name;
    (void)std::snprintf(name.data(), name.size(), "%s/client.%d.0x%" PRIx64, socketDirectory, ::getpid(), nextNumber());
    if (!bindTo(handle->fd, name.data())) return false;
    openToAll(name.data());
    const vx::Fd closed(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return closed.valid() && bindTo(closed.get(), handle->client_path);
}

// Removes the file that bindToNewName() made. Its path is known from the socket alone.
void removeNewName(const configd_handle *handle) {
    sockaddr_un address{};
    socklen_t length = sizeof address - 1;
    if (::getsockname(handle->fd, reinterpret_cast<sockaddr *>(&address), &length) == -1) return;
    const std::string_view name = address.sun_path;
    const std::string_view path = handle->client_path;
    const std::string_view directoryAndPid = path.substr(0, path.rfind('.') + 1);
    if (!path.empty() && name != path && name.starts_with(directoryAndPid)) ::unlink(address.sun_path);
}

// --- exchange of a request and its answer

// Makes sendto() or recvfrom() give up after `limit`.
void limitTime(int fd, int direction, Clock::duration limit) {
    const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(limit).count();
    timeval time{};
    time.tv_sec = microseconds / 1000000;
    time.tv_usec = microseconds % 1000000;
    ::setsockopt(fd, SOL_SOCKET, direction, &time, sizeof time);
}

ssize_t sendOnce(int fd, const char *data, size_t length, const sockaddr_un &daemon) {
    return ::sendto(fd, data, length, 0, reinterpret_cast<const sockaddr *>(&daemon), sizeof daemon);
}

// Continues after a signal has interrupted sendOnce(), until the deadline.
ssize_t sendAgain(int fd, const char *data, size_t length, const sockaddr_un &daemon, Clock::time_point deadline) {
    ssize_t sent = -1;
    errno = EINTR;
    while (sent == -1 && errno == EINTR) {
        const auto left = deadline - Clock::now();
        if (left < 1us) {
            errno = EAGAIN;
            break;
        }
        limitTime(fd, SO_SNDTIMEO, left);
        sent = sendOnce(fd, data, length, daemon);
    }
    const vx::ErrnoKeeper keeper;
    limitTime(fd, SO_SNDTIMEO, answerTimeout);
    return sent;
}

ssize_t transmit(int fd, const char *data, size_t length, const sockaddr_un &daemon) {
    const auto deadline = Clock::now() + answerTimeout;
    const ssize_t sent = sendOnce(fd, data, length, daemon);
    return sent == -1 && errno == EINTR ? sendAgain(fd, data, length, daemon, deadline) : sent;
}

bool waitForAnswer(int fd, Clock::time_point deadline) {
    pollfd waiting{fd, POLLIN, 0};  // unlike select(), poll() carries descriptors of any number
    for (;;) {
        const auto left = deadline - Clock::now();
        if (left <= 0s) return false;
        const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        const int ready = ::poll(&waiting, 1, static_cast<int>(milliseconds));
        if (ready == -1 && errno == EINTR) continue;
        // A socket that useUp() has shut down is readable without end, but receives nothing.
        return ready > 0 && (waiting.revents & POLLHUP) == 0;
    }
}

// Receives at most `size` - 1 bytes and puts a NUL after them. Returns -1 and leaves `data` unchanged when no answer
// came in time. `prompt` tells whether an answer came within `promptAnswer`. `flags` are those of the first recvfrom().
int receiveAnswer(int fd, char *data, int size, int flags, bool &prompt) {
    const vx::SigpipeScope ignored;
    const auto start = Clock::now();
    const auto room = static_cast<size_t>(size) - 1;
    // Most answers are prompt: without flags this call waits as long as limitTime() has set, and saves them the poll().
    ssize_t received = ::recvfrom(fd, data, room, flags, nullptr, nullptr);
    prompt = true;
    while (received == -1 && (errno == EINTR || errno == EAGAIN) && waitForAnswer(fd, start + answerTimeout)) {
        received = ::recvfrom(fd, data, room, MSG_DONTWAIT, nullptr, nullptr);
        prompt = Clock::now() - start < promptAnswer;
    }
    if (received >= 0) data[received] = '\0';
    return static_cast<int>(received);
}

// Ends the use of a socket to whose name another answer may still come. It receives nothing any more; sendAfter() gets
// EPIPE from it and reconnects.
void useUp(const configd_handle *handle) {
    distrust(handle);
    ::shutdown(handle->fd, SHUT_RDWR);
}

int receiveAnswer(const configd_handle *handle, Message &answer, int size) {
    bool prompt = false;
    const int received = receiveAnswer(handle->fd, answer.data(), size, 0, prompt);
    if (received < 0 || !prompt || answersAreRepeated) useUp(handle);
    return received;
}

void reconnect(configd_handle *handle) {
    __configd_close(handle);
    (void)__configd_open(handle);
}

// Connects the socket to the daemon that runs now, so that the kernel refuses datagrams from all other sockets.
bool prepareSend(const configd_handle *handle, const sockaddr_un &daemon) {
    return ::connect(handle->fd, reinterpret_cast<const sockaddr *>(&daemon), sizeof daemon) == 0;
}

// Empties the connected socket, unless a daemon sends without end. Returns whether an answer of the daemon was in it.
bool discardAnswers(int fd) {
    bool found = false;
    for (int discarded = 0; discarded < mostDiscarded; ++discarded) {
        char byte;
        sockaddr_un sender{};
        socklen_t length = sizeof sender;
        auto *const from = reinterpret_cast<sockaddr *>(&sender);
        if (vx::retryEintr([&] { return ::recvfrom(fd, &byte, sizeof byte, MSG_DONTWAIT, from, &length); }) < 0) {
            return found;
        }
        sockaddr_un daemon{};
        length = sizeof daemon;
        (void)::getpeername(fd, reinterpret_cast<sockaddr *>(&daemon), &length);
        found = found || std::strncmp(sender.sun_path, daemon.sun_path, sizeof sender.sun_path) == 0;
    }
    return found;
}

// Connects and empties the socket. If a superfluous answer was in it, more may follow: the request then goes out from a
// socket with a new name.
bool prepareExchange(configd_handle *handle, const sockaddr_un &daemon) {
    if (!prepareSend(handle, daemon)) return false;
    if (!discardAnswers(handle->fd)) return true;
    answersAreRepeated = true;
    distrust(handle);
    reconnect(handle);
    if (!prepareSend(handle, daemon)) return false;
    (void)discardAnswers(handle->fd);
    return true;
}

template <typename Prepare>
ssize_t sendAfter(Prepare prepare, configd_handle *handle, const char *data, int length) {
    const sockaddr_un daemon = addressOf(handle->server_path);
    const auto send = [&]() -> ssize_t {
        if (!prepare(handle, daemon)) return -1;
        return transmit(handle->fd, data, static_cast<size_t>(length), daemon);
    };
    const ssize_t sent = send();
    if (sent != -1 || errno != EPIPE) return sent;
    reconnect(handle);  // useUp() has shut its socket down
    return send();
}

// Returns false and logs when the request was not sent whole.
bool sendRequest(configd_handle *handle, const char *request, int length) {
    if (sendAfter(prepareExchange, handle, request, length) >= length) return true;
    vx::log(LOG_ERR, "unable to send query to configd");
    return false;
}

int reconnected(configd_handle *handle, int result) {
    reconnect(handle);
    return result;
}

// Ends a call whose request was sent and got no proper answer: that may still come.
int gaveUp(configd_handle *handle, int result) {
    distrust(handle);
    return reconnected(handle, result);
}

// --- calls

// Returns the text of a record's field, which a caller may have filled to its last byte, without a NUL.
template <size_t size>
std::string_view fieldText(const char (&field)[size]) {
    return {field, ::strnlen(field, size)};
}

// Appends a text and returns the new length; -1 when the daemon's echo would not fit into the buffer for the answer.
// Passes on an earlier -1.
int append(Message &request, int length, std::string_view text) {
    if (length < 0 || text.size() >= static_cast<size_t>(changeAnswerMax - length)) return -1;
    std::memcpy(request.data() + length, text.data(), text.size());
    return length + static_cast<int>(text.size());
}

// Writes "key=value\n" of every record and a NUL. Returns the length without the NUL, -1 when it does not fit.
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

// Allocates a handle, if possible not at the address of a distrusted one: each attempt holds its memory until the next
// one has got another address.
configd_handle *newHandle() {
    auto *handle = static_cast<configd_handle *>(zalloc(sizeof(configd_handle)));
    if (handle == nullptr || !isListed(handle)) return handle;
    configd_handle *elsewhere = newHandle();
    if (elsewhere == nullptr) return handle;
    std::free(handle);
    return elsewhere;
}

}  // namespace

configd_handle *configd_open(void) {
    configd_handle *handle = newHandle();
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
    Key room;
    va_list args;
    va_start(args, format);
    const std::string_view key = makeKey(room, format, args);
    va_end(args);
    return key.data() == nullptr ? -1 : addQuery(handle, key);
}

// Quirk Q43.
const char *configd_fetch(configd_handle *handle, const char *format, ...) {
    if (handle == nullptr || format == nullptr) return "";
    if (handle->fetched == 0) {
        if (configd_get(handle, nullptr) != 0) {
            vx::log(LOG_ERR, "configd_get failed");
            return "";
        }
        handle->fetched = 1;
    }
    Key room;
    va_list args;
    va_start(args, format);
    const std::string_view key = makeKey(room, format, args);
    va_end(args);
    if (key.data() != nullptr) {
        const Query *query = findQuery(handle, key, vx::textHash(key.data(), key.size())).found;
        if (query != nullptr) return query->entry.value;
    }
    vx::log(LOG_DEBUG, "key '%.*s' not found", static_cast<int>(key.size()), key.data());
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
    const int received = receiveAnswer(handle, answer, changeAnswerSize);
    if (received != sent) {
        vx::log(LOG_ERR, "no response from configd (%d != %d)", received, sent);
        return gaveUp(handle, -3);
    }
    if (std::memcmp(answer.data(), request.data(), static_cast<size_t>(sent)) != 0) {
        vx::log(LOG_ERR, "invalid response from configd");
        return gaveUp(handle, -4);
    }
    return 0;
}

int configd_done(configd_handle *handle) {
    if (handle == nullptr) return -1;
    if (!sendRequest(handle, doneRequest.data(), static_cast<int>(doneRequest.size()))) return reconnected(handle, -2);
    Message answer;
    answer[0] = '\0';  // stays when no answer comes in time
    if (receiveAnswer(handle, answer, changeAnswerSize) == 0) {
        vx::log(LOG_ERR, "no response from configd");
        return gaveUp(handle, -3);
    }
    if (std::strcmp(answer.data(), "Ready") == 0) return 0;
    if (std::strcmp(answer.data(), "Busy") == 0) return 1;
    vx::log(LOG_ERR, "invalid response <%s> from configd", answer.data());
    return gaveUp(handle, -4);
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
    return static_cast<int>(sendAfter(prepareSend, handle, data, length));
}

// Quirk Q41.
int configd_recv(configd_handle *handle, char *data, int size) {
    if (handle == nullptr || handle->fd < 0 || data == nullptr || size <= 0) return -1;
    bool prompt = false;
    // The socket may be the caller's own, without a time limit.
    const int received = receiveAnswer(handle->fd, data, size, MSG_DONTWAIT, prompt);
    if (received == -1) {
        distrust(handle);
    } else {
        std::memset(data + received, 0, static_cast<size_t>(size - received));
    }
    return received;
}

// Quirk Q42.
int configd_prepare_get(configd_handle *handle, configd_entry *entry) {
    if (handle == nullptr || entry == nullptr) return -1;
    Message message;
    const std::string_view key = fieldText(entry->key);
    message[0] = '?';
    std::memcpy(&message[1], key.data(), key.size());
    std::memcpy(&message[1 + key.size()], "\n", 2);
    if (!sendRequest(handle, message.data(), static_cast<int>(key.size()) + 3)) return -1;
    const int received = receiveAnswer(handle, message, CONFIGD_MSG_LEN);
    if (received < trailerLength) {
        vx::log(LOG_ERR, "no response from configd (len %d)", received);
        useUp(handle);
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
    // An earlier process with the same id has left its file. It was killed, so an answer to it may still come.
    if (removeSocketFile(handle->client_path)) distrust(handle);

    const bool bound = isDistrusted(handle) ? bindToNewName(handle) : bindTo(handle->fd, handle->client_path);
    if (!bound) {
        vx::log(LOG_ERR, "cannot bind to configd");
        __configd_close(handle);
        return -1;
    }
    limitTime(handle->fd, SO_SNDTIMEO, answerTimeout);
    limitTime(handle->fd, SO_RCVTIMEO, promptAnswer);
    openToAll(handle->client_path);
    return 0;
}

// Quirk Q40.
void __configd_close(configd_handle *handle) {
    if (handle == nullptr) return;
    removeNewName(handle);
    if (handle->fd >= 0 && handle->fd != neverClosed) ::close(handle->fd);
    handle->fd = -1;
    if (handle->client_path[0] != '\0') (void)removeSocketFile(handle->client_path);
    handle->server_path[0] = '\0';
    handle->client_path[0] = '\0';
}
