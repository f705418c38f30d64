// SPDX-License-Identifier: MIT
// A daemon with a timer, on the library's event loop. Ready: a byte to descriptor 3.
#include <unistd.h>
#include <vxutils/eventsource.h>

namespace {

class Minute : public ITimeoutEventsink {
public:
    void onTimeout(unsigned int) override {}
    int getTimeoutMs() override { return 60000; }
    bool isOneShot() override { return false; }
};

}  // namespace

int main() {
    CEPollEventsource loop;
    Minute minute;
    if (loop.init() != 0) return 1;
    loop.addTimer(&minute);
    return ::write(3, ".", 1) == 1 ? loop.evtLoop() : 1;
}
