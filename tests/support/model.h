// SPDX-License-Identifier: MIT
// Random steps of a family beside a simple model of it. The seed is new in each run and printed; VXTEST_SEED repeats a
// run, VXTEST_STEPS makes it longer. scripts/models sets both.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace vxtest {

class ModelSteps {
public:
    // `few` is the number of steps in the test suite.
    explicit ModelSteps(const char *name, long few)
        : left_(number("VXTEST_STEPS", few)), seed_(static_cast<unsigned>(number("VXTEST_SEED", newSeed()))) {
        std::printf("%s: %ld steps, VXTEST_SEED=%u\n", name, left_, seed_);
        std::fflush(stdout);
        random_.seed(seed_);
    }

    // Counts a step. False when all steps are done.
    bool next() { return left_-- > 0; }
    bool over() const { return left_ <= 0; }
    long left() const { return left_; }

    // A number below `limit`, which is not 0.
    size_t below(size_t limit) { return random_() % limit; }
    bool oneIn(size_t n) { return below(n) == 0; }
    std::mt19937 &random() { return random_; }

private:
    static long number(const char *name, long otherwise) {
        const char *const text = std::getenv(name);
        return text != nullptr ? std::atol(text) : otherwise;
    }
    static long newSeed() { return static_cast<long>(std::random_device()() & 0x7fffffff); }

    long left_;
    unsigned seed_;
    std::mt19937 random_;
};

}  // namespace vxtest
