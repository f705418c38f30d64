// SPDX-License-Identifier: MIT
// The wall clock as the programs of the gateway see it: the machine's, moved by an offset.
#ifndef VXGATEWAY_WALLCLOCK_H
#define VXGATEWAY_WALLCLOCK_H

#include <cstdint>
#include <optional>
#include <string>

#include "gateway/clock.h"

namespace vxgateway {

// The last word of an order that sets the clock: "+2y" or "-30m" by how much, "2028-02-29T23:59:59" (UTC) or "@1700000000.5"
// to what time. The word passed the check of its form.
struct ClockMove {
    bool relative;
    int64_t ns;  // by how much; or since 1970
};
std::optional<ClockMove> clockMove(const std::string &word);

class WallClock {
public:
    WallClock() = default;
    ~WallClock();
    WallClock(const WallClock &) = delete;
    WallClock &operator=(const WallClock &) = delete;

    void share();  // lets programs see it; throws std::runtime_error
    bool isShared() const { return offset_ != nullptr; }

    // What is wrong with the result, or "".
    std::string set(const ClockMove &move);
    void setReal() const;

    std::string text() const;
    std::string json() const;

private:
    int64_t offset_ns() const;

    ClockOffset *offset_ = nullptr;
};

}  // namespace vxgateway

#endif
