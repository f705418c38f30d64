// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <unistd.h>
#include <vxutils/messagequeue.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <system_error>

#include "vxutils/internal/log.h"

namespace {

constexpr char wakeUp = 'x';

// As many bytes as an empty pipe is sure to take in one write.
constexpr auto wakeUps = [] {
    std::array<char, PIPE_BUF> bytes{};
    bytes.fill(wakeUp);
    return bytes;
}();

// Where a step fails the zeros stand: an ordinary mutex, good enough for whoever does not lock twice.
void initRecursive(pthread_mutex_t &mutex) {
    pthread_mutexattr_t attributes{};
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

}  // namespace

IMQEventsink::~IMQEventsink() = default;

CMessageQueue::CMessageQueue(IMQEventsink *consumer, IFDEventsource *source)
    : consumer_(consumer), source_(source), mutex_(), writeFd_(-1), readFd_(-1), unsignalled_(0) {
    initRecursive(mutex_);
}

CMessageQueue::~CMessageQueue() {
    if (source_ != nullptr && readFd_ != -1) source_->removeSink(this);
    if (readFd_ != -1) ::close(readFd_);
    if (writeFd_ != -1) ::close(writeFd_);
    pthread_mutex_destroy(&mutex_);
}

// Both ends are non-blocking. A sender that waited for room would hold the lock that the loop needs to make room.
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

// A message and its wake-up byte become visible together, under the lock. When the pipe is full the message is queued
// without a byte, and so is every later one: bytes always belong to the oldest messages. The loop makes up for them
// when it has used up the pipe.
int CMessageQueue::send(const CQMsg &message) {
    const std::lock_guard<CMessageQueue> guard(*this);
    messages_.push_back(message);
    if (unsignalled_ == 0) {
        if (::write(writeFd_, &wakeUp, 1) == 1) return 0;
        if (errno != EAGAIN) {
            vx::log(DL_ERROR, "Unable to write to pipe - errno=%s", std::strerror(errno));
            messages_.pop_back();
            return -1;
        }
    }
    ++unsignalled_;
    return 0;
}

void CMessageQueue::onReadable() {
    CQMsg message(0);
    if (takeMessage(message)) consumer_->onMessage(this, message);
}

bool CMessageQueue::takeMessage(CQMsg &message) {
    std::unique_lock<CMessageQueue> guard(*this);
    char byte = 0;
    if (::read(readFd_, &byte, 1) != 1) {
        const int error = errno;
        guard.unlock();
        vx::log(DL_ERROR, "Unable to read from pipe - errno=%s", std::strerror(error));
        consumer_->onQueueError(this);
        return false;
    }
    if (messages_.empty()) return false;  // a byte from a forked child, whose message stayed there
    message = messages_.front();
    messages_.pop_front();
    if (unsignalled_ > 0) wakeForUnsignalled();
    return true;
}

// Once all messages that had a byte are delivered the pipe is empty: room for a whole block.
void CMessageQueue::wakeForUnsignalled() {
    unsignalled_ = std::min(unsignalled_, messages_.size());
    if (unsignalled_ == 0 || messages_.size() > unsignalled_) return;
    const ssize_t written = ::write(writeFd_, wakeUps.data(), std::min(messages_.size(), wakeUps.size()));
    if (written > 0) unsignalled_ -= static_cast<size_t>(written);
}

void CMessageQueue::onWritable() {}

int CMessageQueue::getFd() const { return readFd_; }

void CMessageQueue::lock() {
    const int error = pthread_mutex_lock(&mutex_);
    if (error != 0) throw std::system_error(error, std::generic_category());
}

void CMessageQueue::unlock() { pthread_mutex_unlock(&mutex_); }
