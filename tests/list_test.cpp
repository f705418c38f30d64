// SPDX-License-Identifier: MIT
#include <vxutils/list.h>

#include <cstddef>
#include <deque>
#include <iterator>
#include <string>
#include <vector>

#include "support/model.h"

namespace {

struct Record {
    list_link link;
    char name;
};

struct List : testing::Test {
    list_link head = {&head, &head};
    Record a = {{nullptr, nullptr}, 'a'};
    Record b = {{nullptr, nullptr}, 'b'};
    Record c = {{nullptr, nullptr}, 'c'};

    // The members' names, read forwards, after checking that backwards is the same.
    static std::string names(const list_link &list) {
        std::string forwards, backwards;
        for (const list_link *at = list.next; at != &list; at = at->next) {
            EXPECT_EQ(at->next->prev, at);
            forwards += reinterpret_cast<const Record *>(at)->name;
        }
        for (const list_link *at = list.prev; at != &list; at = at->prev) {
            EXPECT_EQ(at->prev->next, at);
            backwards.insert(backwards.begin(), reinterpret_cast<const Record *>(at)->name);
        }
        EXPECT_EQ(forwards, backwards);
        return forwards;
    }
};

TEST_F(List, AHeadThatPointsAtItselfIsEmpty) {
    EXPECT_EQ(list_empty(&head), 1);
    list_add(&a.link, &head);
    EXPECT_EQ(list_empty(&head), 0);
}

TEST_F(List, AddMakesAStack) {
    list_add(&a.link, &head);
    list_add(&b.link, &head);
    list_add(&c.link, &head);
    EXPECT_EQ(names(head), "cba");
}

TEST_F(List, AddTailMakesAQueue) {
    list_add_tail(&a.link, &head);
    list_add_tail(&b.link, &head);
    list_add_tail(&c.link, &head);
    EXPECT_EQ(names(head), "abc");
}

TEST_F(List, AMemberCanStandForTheHead) {
    list_add(&a.link, &head);
    list_add(&b.link, &a.link);
    list_add_tail(&c.link, &b.link);
    EXPECT_EQ(names(head), "acb");
}

TEST_F(List, AddBetweenSetsAllFourPointers) {
    __list_add(&a.link, &head, &head);
    EXPECT_EQ(head.next, &a.link);
    EXPECT_EQ(head.prev, &a.link);
    EXPECT_EQ(a.link.next, &head);
    EXPECT_EQ(a.link.prev, &head);
    __list_add(&b.link, &a.link, &head);
    EXPECT_EQ(names(head), "ab");
}

TEST_F(List, DelBetweenJoinsTheNeighbours) {
    list_add_tail(&a.link, &head);
    list_add_tail(&b.link, &head);
    list_add_tail(&c.link, &head);
    __list_del(&head, &c.link);
    EXPECT_EQ(names(head), "c");
}

TEST_F(List, DelLeavesTheEntrysOwnPointers) {
    list_add_tail(&a.link, &head);
    list_add_tail(&b.link, &head);
    list_add_tail(&c.link, &head);
    list_del(&b.link);
    EXPECT_EQ(names(head), "ac");
    EXPECT_EQ(b.link.next, &c.link);
    EXPECT_EQ(b.link.prev, &a.link);
}

TEST_F(List, DelInitMakesTheEntryAnEmptyList) {
    list_add_tail(&a.link, &head);
    list_del_init(&a.link);
    EXPECT_EQ(list_empty(&head), 1);
    EXPECT_EQ(list_empty(&a.link), 1);
    EXPECT_EQ(a.link.prev, &a.link);
    list_del_init(&a.link);
    EXPECT_EQ(list_empty(&a.link), 1) << "and may be repeated";
}

TEST_F(List, SpliceInsertsInOrderAfterTheHead) {
    list_link other = {&other, &other};
    list_add_tail(&a.link, &head);
    list_add_tail(&b.link, &other);
    list_add_tail(&c.link, &other);
    list_splice(&other, &head);
    EXPECT_EQ(names(head), "bca");
    EXPECT_EQ(other.next, &b.link) << "the other head is not reset";
    EXPECT_EQ(other.prev, &c.link);
}

TEST_F(List, SpliceIntoAnEmptyList) {
    list_link other = {&other, &other};
    list_add_tail(&a.link, &other);
    list_splice(&other, &head);
    EXPECT_EQ(names(head), "a");
}

TEST_F(List, SpliceOfAnEmptyListChangesNothing) {
    list_link other = {&other, &other};
    list_add_tail(&a.link, &head);
    list_splice(&other, &head);
    EXPECT_EQ(names(head), "a");
    EXPECT_EQ(list_empty(&other), 1);
    list_link both = {&both, &both};
    list_splice(&other, &both);
    EXPECT_EQ(list_empty(&both), 1);
}

using ListModel = List;

TEST_F(ListModel, AgreesOverRandomOperations) {
    vxtest::ModelSteps steps("lists", 20000);
    std::vector<Record> records(26);
    std::deque<char> expected;
    for (size_t i = 0; i < records.size(); ++i) records[i].name = static_cast<char>('a' + i);
    std::vector<bool> in(records.size());
    while (steps.next()) {
        const size_t i = steps.below(records.size());
        Record &one = records[i];
        if (in[i]) {
            steps.oneIn(2) ? list_del(&one.link) : list_del_init(&one.link);
            expected.erase(std::find(expected.begin(), expected.end(), one.name));
        } else if (steps.oneIn(2)) {
            list_add(&one.link, &head);
            expected.push_front(one.name);
        } else {
            list_add_tail(&one.link, &head);
            expected.push_back(one.name);
        }
        in[i] = !in[i];
        ASSERT_EQ(names(head), std::string(expected.begin(), expected.end())) << steps.left() << " steps were left";
        ASSERT_EQ(list_empty(&head), expected.empty() ? 1 : 0);
    }
}

}  // namespace
