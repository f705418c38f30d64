// SPDX-License-Identifier: MIT
// Status values and messages of a status FIFO of any content arrive as they were sent.
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/event_compat.h>
#include <fcntl.h>
#include <unistd.h>
#include <vxutils/statusinterface.h>
#include <vxutils/vxstring.h>

#include <cstring>

#include "fuzz/stage.h"

namespace {

class Observer : public StatusFifoObserver {
public:
    void fifoDataReceived(bufferevent * /*buffer*/, char *data, unsigned long length) override {
        stage::check(length > 0 && length <= 99 && std::strlen(data) <= length);
        received.append(data, length);
    }
    std::string received;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static event_base *const base = event_init();
    if (size > 32768) return 0;
    const std::string_view text = stage::text(data, size);
    StatusInterface status;
    stage::check(status.setup(BASEPATH_STATUS, String("/fuzz")));
    const String value(reinterpret_cast<const char *>(data), 0, static_cast<long>(size));
    String read;
    stage::check(status.setStatus(String("/value"), value));
    stage::check(status.getStatus(String("/value"), read));
    stage::check(read.equals(value));

    Observer observer;
    const unsigned long fifo = status.setupIpcRxFifo(String("/fifo"), &observer);
    stage::check(fifo != 0);
    const int writer = ::open("/tmp/status/fuzz/fifo", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    stage::check(writer != -1);
    stage::check(::write(writer, data, size) == static_cast<ssize_t>(size));
    while (observer.received.size() < size) event_base_loop(base, EVLOOP_ONCE);
    stage::check(observer.received == text);
    ::close(writer);
    status.deleteIpcRxFifo(fifo);
    return 0;
}
