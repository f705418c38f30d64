// SPDX-License-Identifier: MIT
#include <vxutils/messagequeue.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <new>
#include <system_error>

#include "vxutils/internal/log.h"

namespace {

constexpr char wakeUp = 'x';

// If any call fails, the mutex stays zero-initialised, i.e. a plain non-recursive one.
void initRecursive(pthread_mutex_t &mutex) {
    pthread_mutexattr_t attributes{};
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

// Each message has a wake-up byte in the pipe, except those that were sent while the pipe was full. The number of these
// unsignalled messages is the `code` of an extra entry at the front of the deque, whose `data` is the address of this
// mark; there is no such entry while the number is 0. Shipped programs derive from the class, so it cannot have another
// member for the number.
char unsignalledMark;

bool anyUnsignalled(const std::deque<CQMsg> &messages) {
    return !messages.empty() && messages.front().data == &unsignalledMark;
}

void addUnsignalled(std::deque<CQMsg> &messages) {
    if (!anyUnsignalled(messages)) {
        messages.emplace_front(1, &unsignalledMark);
    } else if (messages.front().code == INT_MAX) {
        throw std::bad_alloc();  // GCOVR_EXCL_LINE: after 2^31 messages
    } else {
        ++messages.front().code;
    }
}

// Counts one unsignalled message less; false if there is none.
bool takeUnsignalled(std::deque<CQMsg> &messages) {
    if (!anyUnsignalled(messages)) return false;
    if (--messages.front().code == 0) messages.pop_front();
    return true;
}

// Returns false if the queue is empty.
bool takeOldest(std::deque<CQMsg> &messages, CQMsg &oldest) {
    const size_t at = anyUnsignalled(messages) ? 1 : 0;
    if (messages.size() <= at) return false;
    oldest = messages[at];
    messages[at] = messages.front();  // the extra entry stays at the front
    messages.pop_front();
    return true;
}

}  // namespace

IMQEventsink::~IMQEventsink() = default;

CMessageQueue::CMessageQueue(IMQEventsink *consumer, IFDEventsource *source)
    : consumer_(consumer), source_(source), mutex_(), writeFd_(-1), readFd_(-1) {
    initRecursive(mutex_);
}

CMessageQueue::~CMessageQueue() {
    if (source_ != nullptr && readFd_ != -1) source_->removeSink(this);
    if (readFd_ != -1) ::close(readFd_);
    if (writeFd_ != -1) ::close(writeFd_);
    pthread_mutex_destroy(&mutex_);
}

// Both ends are non-blocking: a sender that waited for room in the pipe would do so under the lock, which the loop
// needs to make room.
int CMessageQueue::init() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) == -1) {
        vx::log(DL_ERROR, "Unable to create pipe-fds - errno=%s", std::strerror(errno));
        return -1;
    }
    readFd_ = ends[0];
    writeFd_ = ends[1];
    if (source_ != nullptr) source_->addSink(this, IFDEventsource::ET_READ);
    return 0;
}

// A message and its wake-up byte become visible together, under the lock. When the pipe is full, the message is queued
// as an unsignalled one, and so is every later message until none of these is left. If memory runs out at the end,
// after the byte was written or the message counted, the loop is woken once without a message.
int CMessageQueue::send(const CQMsg &message) {
    const std::lock_guard<CMessageQueue> guard(*this);
    bool signalled = false;
    if (!anyUnsignalled(messages_)) {
        signalled = ::write(writeFd_, &wakeUp, 1) == 1;
        if (!signalled && errno != EAGAIN) {
            vx::log(DL_ERROR, "Unable to write to pipe - errno=%s", std::strerror(errno));
            return -1;
        }
    }
    if (!signalled) addUnsignalled(messages_);
    messages_.push_back(message);
    return 0;
}

void CMessageQueue::onReadable() {
    CQMsg message(0);
    if (takeMessage(message)) consumer_->onMessage(this, message);
}

// As long as there are unsignalled messages, no byte is read: the pipe stays full and the loop calls again. After that
// there are as many bytes as messages. So the pipe is never empty while a message waits.
bool CMessageQueue::takeMessage(CQMsg &message) {
    std::unique_lock<CMessageQueue> guard(*this);
    char byte = 0;
    if (!takeUnsignalled(messages_) && ::read(readFd_, &byte, 1) != 1) {
        const int error = errno;
        guard.unlock();
        vx::log(DL_ERROR, "Unable to read from pipe - errno=%s", std::strerror(error));
        consumer_->onQueueError(this);
        return false;
    }
    return takeOldest(messages_, message);
}

void CMessageQueue::onWritable() {}

int CMessageQueue::getFd() const { return readFd_; }

void CMessageQueue::lock() {
    const int error = pthread_mutex_lock(&mutex_);
    if (error != 0) throw std::system_error(error, std::generic_category());
}

void CMessageQueue::unlock() { pthread_mutex_unlock(&mutex_); }
