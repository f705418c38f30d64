// SPDX-License-Identifier: MIT
// Small numbers for threads, and objects that only one of them may destroy.
#pragma once

#include <cstddef>

namespace vx {

// Returns the lowest number that no other thread that is alive has. The first call of a thread throws std::bad_alloc
// without memory. What a thread did before its end happened before what the next thread of its number does.
size_t threadNumber();

// An object that one thread uses without locking and another one may give up.
class OfOneThread {
public:
    OfOneThread() = default;
    OfOneThread(const OfOneThread &) = delete;
    OfOneThread &operator=(const OfOneThread &) = delete;

    // Deletes the object in the thread of this number: when it calls threadNumber() next or ends; at once when it is
    // the calling thread or has ended.
    static void drop(OfOneThread *object, size_t thread);

    virtual ~OfOneThread() = default;

private:
    friend struct ThreadPlace;
    OfOneThread *next_ = nullptr;
};

}  // namespace vx
