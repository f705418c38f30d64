// SPDX-License-Identifier: MIT
// Measures the round-trip time over the gateway's WAN link with echo requests of its own.
#ifndef VXGATEWAY_PANEL_PROBE_H
#define VXGATEWAY_PANEL_PROBE_H

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "gateway/core/peer.h"

namespace vxgateway {

class Probe {
public:
    Probe();

    int fd() const { return fd_.get(); }  // -1 when nothing can be measured here

    // Sends what is due; the round trips that were completed or given up since the last call, nothing for a lost one.
    std::vector<std::optional<double>> poll_ms();

private:
    void send();

    Descriptor fd_;
    uint16_t id_;
    uint16_t sequence_ = 0;
    std::map<uint16_t, Clock::time_point> sent_;
    Clock::time_point due_ = Clock::now();
};

}  // namespace vxgateway

#endif
