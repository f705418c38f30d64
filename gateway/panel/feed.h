// SPDX-License-Identifier: MIT
// What a page is told while it is open, as server-sent events:
//
//   state   the gateway as "gw show --json" prints it, at the beginning and whenever it has changed
//   record  one entry of "gw watch --json": the newest ones at the beginning, then each as it comes
//   trip    a measured round-trip time to the target: {"ms":milliseconds, or null when none came back}
#ifndef VXGATEWAY_PANEL_FEED_H
#define VXGATEWAY_PANEL_FEED_H

#include <memory>
#include <optional>
#include <string>

#include "gateway/core/client.h"
#include "gateway/panel/probe.h"

namespace vxgateway {

class Feed {
public:
    explicit Feed(bool measures);

    // Waits a moment for news. The events to send, "" if there are none; nothing once the gateway has ended.
    std::optional<std::string> next();

private:
    bool readRecord(std::string &events);
    bool lookAtState(std::string &events);

    Descriptor watch_;
    std::optional<Probe> probe_;
    std::string partial_;
    std::string state_;
    Clock::time_point look_ = Clock::now();
    Clock::time_point quietSince_ = Clock::now();
};

}  // namespace vxgateway

#endif
