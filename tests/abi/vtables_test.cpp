// SPDX-License-Identifier: MIT
// Positions and number of the virtual operations, as shipped programs call and implement them. slots.cpp holds the same
// positions at compile time, where the compiler can.
#include <vxutils/csemaphore.h>
#include <vxutils/dynamicmodule.h>
#include <vxutils/eventsource.h>
#include <vxutils/messagequeue.h>
#include <vxutils/statusinterface.h>

#include "support/vtable.h"

namespace {

using vxtest::slotOf;
using vxtest::slotsOf;

TEST(VirtualTables, OfTheEventLoop) {
    EXPECT_EQ(slotOf(&IFDEventsource::addSink), 0U);
    EXPECT_EQ(slotOf(&IFDEventsource::removeSink), 1U);
    EXPECT_EQ(slotOf(&IFDEventsource::modifyEventMask), 2U);
    EXPECT_EQ(slotOf(&IFDEventsource::getEventMask), 3U);
    EXPECT_EQ(slotOf(&IFDEventsource::terminate), 4U);  // 5 and 6 are the destructors
    EXPECT_EQ(slotOf(&ITimeoutEventsource::addTimer), 0U);
    EXPECT_EQ(slotOf(&ITimeoutEventsource::removeTimer), 1U);
    EXPECT_EQ(slotOf(&ITimeoutEventsource::activeTimer), 2U);
    EXPECT_EQ(slotOf(&IFDEventsink::onReadable), 0U);
    EXPECT_EQ(slotOf(&IFDEventsink::onWritable), 1U);
    EXPECT_EQ(slotOf(&IFDEventsink::getFd), 2U);
    EXPECT_EQ(slotOf(&ITimeoutEventsink::onTimeout), 0U);
    EXPECT_EQ(slotOf(&ITimeoutEventsink::getTimeoutMs), 1U);
    EXPECT_EQ(slotOf(&ITimeoutEventsink::isOneShot), 2U);
    EXPECT_EQ(slotOf(&CEPollEventsource::addSink), 0U);
    EXPECT_EQ(slotOf(&CEPollEventsource::addTimer), 7U);
    EXPECT_EQ(slotOf(&CEPollEventsource::removeTimer), 8U);
    EXPECT_EQ(slotOf(&CEPollEventsource::activeTimer), 9U);
    EXPECT_EQ(slotsOf<IFDEventsource>(), 7U);
    EXPECT_EQ(slotsOf<ITimeoutEventsource>(), 5U);
    EXPECT_EQ(slotsOf<IFDEventsink>(), 5U);
    EXPECT_EQ(slotsOf<ITimeoutEventsink>(), 5U);
    EXPECT_EQ(slotsOf<CEPollEventsource>(), 10U);
}

TEST(VirtualTables, OfTheMessageQueue) {
    EXPECT_EQ(slotOf(&IMQEventsink::onMessage), 0U);
    EXPECT_EQ(slotOf(&IMQEventsink::onQueueError), 1U);
    EXPECT_EQ(slotOf(&CMessageQueue::onReadable), 0U);
    EXPECT_EQ(slotOf(&CMessageQueue::onWritable), 1U);
    EXPECT_EQ(slotOf(&CMessageQueue::getFd), 2U);
    EXPECT_EQ(slotsOf<IMQEventsink>(), 4U);
    EXPECT_EQ(slotsOf<CMessageQueue>(), 5U);
}

// Programs implement the observer: their table has the two destructors first.
TEST(VirtualTables, OfTheStatusTree) {
    EXPECT_EQ(slotOf(&StatusFifoObserver::fifoDataReceived), 2U);
    EXPECT_EQ(slotsOf<StatusFifoObserver>(), 3U);
    EXPECT_EQ(slotsOf<StatusInterface>(), 2U);
}

TEST(VirtualTables, OfModulesHoldTheDestructorsOnly) { EXPECT_EQ(slotsOf<CDynamicModule>(), 2U); }

TEST(VirtualTables, OfSemaphoresHoldTheDestructorsOnly) {
    EXPECT_EQ(slotsOf<CSemaphore>(), 2U);
    EXPECT_EQ(slotsOf<CRecursiveSemaphore>(), 2U);
}

}  // namespace
