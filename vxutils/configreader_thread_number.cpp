// SPDX-License-Identifier: MIT
#include "vxutils/configreader_thread_number.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <mutex>
#include <utility>

namespace vx {

// What belongs to a number. Changed under the lock of all places.
struct ThreadPlace {
    explicit ThreadPlace(size_t itsNumber) : number(itsNumber) {}

    void add(OfOneThread *object) {
        object->next_ = dropped.load(std::memory_order_relaxed);
        dropped.store(object, std::memory_order_relaxed);
    }

    static void destroy(OfOneThread *object) {
        while (object != nullptr) delete std::exchange(object, object->next_);
    }

    const size_t number;
    bool taken = false;
    std::atomic<OfOneThread *> dropped = nullptr;  // by other threads, for this one to delete
};

namespace {

thread_local ThreadPlace *ownPlace = nullptr;

// The places by number. Never destroyed: detached threads may end after static objects have gone.
struct Places {
    static Places &all() {
        static auto *const places = new Places;
        return *places;
    }

    // A child of fork() gets the places whole and unlocked. Only the thread that called fork() lives on in it.
    Places() {
        [[maybe_unused]] const int registered =
            ::pthread_atfork([] { all().mutex.lock(); }, [] { all().mutex.unlock(); }, [] { all().goOnInChild(); });
    }

    void goOnInChild() {
        for (ThreadPlace &place : places) place.taken = &place == ownPlace;
        mutex.unlock();
    }

    // Leaves an object to the thread of this number; false when that is the calling thread or has ended.
    bool leave(OfOneThread *object, size_t thread) {
        const std::lock_guard guard(mutex);
        ThreadPlace &place = places[thread];
        if (!place.taken || &place == ownPlace) return false;
        place.add(object);
        return true;
    }

    std::mutex mutex;
    std::deque<ThreadPlace> places;
};

void takeOwnPlace() {
    Places &all = Places::all();
    const std::lock_guard guard(all.mutex);
    const auto free =
        std::find_if(all.places.begin(), all.places.end(), [](const ThreadPlace &place) { return !place.taken; });
    ownPlace = free != all.places.end() ? &*free : &all.places.emplace_back(all.places.size());
    ownPlace->taken = true;
}

// Returns what other threads have left to this one. They leave nothing more to one that ends.
OfOneThread *takeDropped(bool ends) {
    const std::lock_guard guard(Places::all().mutex);
    if (ends) ownPlace->taken = false;
    return ownPlace->dropped.exchange(nullptr, std::memory_order_relaxed);
}

// Gives the place of a thread back at its end.
struct EndOfThread {
    ~EndOfThread() {
        OfOneThread *const dropped = takeDropped(true);
        ownPlace = nullptr;  // it may be another thread's by now
        ThreadPlace::destroy(dropped);
    }
};

}  // namespace

size_t threadNumber() {
    const ThreadPlace *place = ownPlace;  // all that most calls need
    if (place != nullptr && place->dropped.load(std::memory_order_relaxed) == nullptr) return place->number;
    // A thread that asks while its thread_local objects are destroyed gets a new number, which stays taken.
    if (place == nullptr) takeOwnPlace();
    static thread_local EndOfThread end;
    ThreadPlace::destroy(takeDropped(false));
    return ownPlace->number;
}

void OfOneThread::drop(OfOneThread *object, size_t thread) {
    if (!Places::all().leave(object, thread)) delete object;
}

}  // namespace vx
