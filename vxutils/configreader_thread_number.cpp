// SPDX-License-Identifier: MIT
#include "vxutils/configreader_thread_number.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <climits>
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

void giveBackPlace(void *);

constexpr pthread_key_t noKey = PTHREAD_KEYS_MAX;  // all calls refuse it

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
        (void)::pthread_key_create(&key, &giveBackPlace);
    }

    void goOnInChild() {
        for (ThreadPlace &place : places) place.taken = &place == ownPlace;
        mutex.unlock();
    }

    void takeOwn() {
        const std::lock_guard guard(mutex);
        const auto free =
            std::find_if(places.begin(), places.end(), [](const ThreadPlace &place) { return !place.taken; });
        ownPlace = free != places.end() ? &*free : &places.emplace_back(places.size());
        ownPlace->taken = true;
        (void)::pthread_setspecific(key, ownPlace);  // where that fails the place stays taken
    }

    void forgetKey() {
        const std::lock_guard guard(mutex);
        ::pthread_key_delete(std::exchange(key, noKey));
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
    pthread_key_t key = noKey;
};

// Threads that have a place may go on after a program has unloaded the library.
struct Unloading {
    ~Unloading() { Places::all().forgetKey(); }
};

void takeOwnPlace() {
    Places &all = Places::all();
    static const Unloading unloading;
    all.takeOwn();
}

// Returns what other threads have left to this one. They leave nothing more to one that ends.
OfOneThread *takeDropped(bool ends) {
    const std::lock_guard guard(Places::all().mutex);
    if (ends) ownPlace->taken = false;
    return ownPlace->dropped.exchange(nullptr, std::memory_order_relaxed);
}

// Gives the place of a thread back at its end. The C library calls this after the destructors of thread_local objects,
// which may be the last to use Strings of the thread.
void giveBackPlace(void *) {
    OfOneThread *const dropped = takeDropped(true);
    ownPlace = nullptr;  // it may be another thread's by now
    ThreadPlace::destroy(dropped);
}

}  // namespace

size_t threadNumber() {
    const ThreadPlace *place = ownPlace;  // all that most calls need
    if (place != nullptr && place->dropped.load(std::memory_order_relaxed) == nullptr) return place->number;
    if (place == nullptr) takeOwnPlace();
    ThreadPlace::destroy(takeDropped(false));
    return ownPlace->number;
}

void OfOneThread::drop(OfOneThread *object, size_t thread) {
    if (!Places::all().leave(object, thread)) delete object;
}

}  // namespace vx
