// SPDX-License-Identifier: MIT
// The position of every virtual operation, held by the compiler: programs in the field call them by position. A pointer
// to a member is not a constant expression that could be taken apart, but the optimiser folds one; what it cannot prove
// right leaves a call that does not compile.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <vxutils/configdaemonclient.h>
#include <vxutils/configreader.h>
#include <vxutils/digest.h>
#include <vxutils/eventsource.h>
#include <vxutils/messagequeue.h>
#include <vxutils/pingclient.h>
#include <vxutils/processcontrol.h>
#include <vxutils/statusinterface.h>

[[gnu::error("a virtual operation has moved")]] void vxutilsOperationMoved();

namespace {

// As the Itanium C++ ABI has it; Arm keeps the mark of a virtual operation in the other word.
#if defined(__arm__) || defined(__aarch64__)
constexpr uintptr_t virtualMark = 0;
#else
constexpr uintptr_t virtualMark = 1;
#endif

template <typename Operation>
[[gnu::always_inline]] inline void hold(size_t slot, Operation operation) {
    uintptr_t word = 0;
    static_assert(sizeof operation == 2 * sizeof word);
    std::memcpy(&word, &operation, sizeof word);
    if (word != slot * sizeof(void *) + virtualMark) vxutilsOperationMoved();
}

// The operations of a class in their order, the first of them at the given position.
template <typename... Operations>
[[gnu::always_inline]] inline void inOrder(size_t first, Operations... operations) {
    (hold(first++, operations), ...);
}

constexpr size_t behindDestructors = 2;  // the complete and the deleting one

}  // namespace

void vxutilsVirtualOperations();  // never called: it is here to be compiled

void vxutilsVirtualOperations() {
    inOrder(behindDestructors, &ConfigReader::initialize, &ConfigReader::cleanup, &ConfigReader::getValue,
            &ConfigReader::getValueAsInt, &ConfigReader::getIndexedValue, &ConfigReader::getIndexedValueAsInt);
    inOrder(behindDestructors, &ConfigDaemonClient::setValue, &ConfigDaemonClient::setValueAsInt,
            &ConfigDaemonClient::setIndexedValue, &ConfigDaemonClient::setIndexedValueAsInt,
            &ConfigDaemonClient::getValue, &ConfigDaemonClient::getValueAsInt, &ConfigDaemonClient::getIndexedValue,
            &ConfigDaemonClient::getIndexedValueAsInt);
    inOrder(behindDestructors, &HashContext::initialize, &HashContext::destroy, &HashContext::hash,
            &HashContext::getReturnedHashLength, &HashContext::getHash, &HashContext::getCompleteHashLength,
            &HashContext::getCompleteHash, &HashContext::test);
    inOrder(behindDestructors, &AuthenticationContext::initialize, &AuthenticationContext::destroy,
            &AuthenticationContext::reset, &AuthenticationContext::hash, &AuthenticationContext::getHash,
            &AuthenticationContext::getCompleteHashLength, &AuthenticationContext::getReturnedHashLength);
    inOrder(behindDestructors, &ProcessEntry::getPid, &ProcessEntry::getName, &ProcessEntry::getNext,
            &ProcessEntry::setNext, &ProcessEntry::setValid, &ProcessEntry::isValid);
    inOrder(behindDestructors, &ProcessControl::refresh, &ProcessControl::getNextProcessEntryByName,
            &ProcessControl::getNumberOfProcessesByName, &ProcessControl::getProcessEntryByPid,
            &ProcessControl::getNumberOfProcesses, &ProcessControl::cleanup);
    inOrder(behindDestructors, &PingClient::sendSimplePing, &PingClient::checkPingResponse, &PingClient::cleanup,
            &PingClient::checksum);
    inOrder(behindDestructors, &StatusFifoObserver::fifoDataReceived);
    inOrder(0, &IFDEventsource::addSink, &IFDEventsource::removeSink, &IFDEventsource::modifyEventMask,
            &IFDEventsource::getEventMask, &IFDEventsource::terminate);
    inOrder(0, &ITimeoutEventsource::addTimer, &ITimeoutEventsource::removeTimer, &ITimeoutEventsource::activeTimer);
    inOrder(0, &IFDEventsink::onReadable, &IFDEventsink::onWritable, &IFDEventsink::getFd);
    inOrder(0, &ITimeoutEventsink::onTimeout, &ITimeoutEventsink::getTimeoutMs, &ITimeoutEventsink::isOneShot);
    inOrder(7, &CEPollEventsource::addTimer, &CEPollEventsource::removeTimer, &CEPollEventsource::activeTimer);
    inOrder(0, &IMQEventsink::onMessage, &IMQEventsink::onQueueError);
    inOrder(0, &CMessageQueue::onReadable, &CMessageQueue::onWritable, &CMessageQueue::getFd);
}
