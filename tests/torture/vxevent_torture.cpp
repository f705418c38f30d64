// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/vxevent.h>
#include <zmq.h>

#include <cstring>

#include "support/files.h"
#include "torture/faults.h"

using torture::Run;

// The loader keeps what it knows of a library in memory of its own, where the leak checker does not look; that the
// loader is the caller it cannot see, for malloc() is the torturer's.
extern "C" const char *__lsan_default_suppressions() { return "leak:_dl_map_object_deps\n"; }

namespace {

const char *const fifoPath = "/tmp/status/event-manager/throw";

void fifo(Run &run) {
    const int reader = ::open(fifoPath, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int thrown = run([] { return vxevent(7, 8, "text"); });
    vxevent_record record{};
    const ssize_t got = ::read(reader, &record, sizeof record);
    const bool whole =
        got == static_cast<ssize_t>(sizeof record) && record.id == 7 && std::strcmp(record.text, "text") == 0;
    run.outcome("vxevent", thrown == 0 && whole, thrown == -1 && run.told());
    run.always("a record arrives whole or not at all", whole || got <= 0);
    ::close(reader);
}

void publish(Run &run) {
    void *const context = zmq_ctx_new();
    const char *const endpoint = "inproc://torture";
    void *source = run([&] { return create_legacy_source_with_addr(context, endpoint); });
    void *sink = nullptr;
    if (run.outcome("create_legacy_source_with_addr", source != nullptr, source == nullptr && run.told())) {
        sink = run([&] { return register_legacy_sink_with_addr(context, endpoint); });
        run.outcome("register_legacy_sink_with_addr", sink != nullptr, sink == nullptr && run.told());
        const vxevent_record record{1, 2, "text"};
        const int sent = run([&] { return dispatch_legacy_event(source, &record); });
        run.outcome("dispatch_legacy_event", sent == 0, sent == -1 && run.told());
    }
    if (sink != nullptr) zmq_close(sink);
    if (source != nullptr) zmq_close(source);
    zmq_ctx_term(context);
}

// The gateway's own endpoint.
void legacy(Run &run) {
    void *const context = zmq_ctx_new();
    void *const source = run([&] { return create_legacy_source(context); });
    run.outcome("create_legacy_source", source != nullptr, source == nullptr && run.told());
    void *const sink = run([&] { return register_legacy_sink(context); });
    run.outcome("register_legacy_sink", sink != nullptr, sink == nullptr && run.told());
    if (sink != nullptr) zmq_close(sink);
    if (source != nullptr) zmq_close(source);
    zmq_ctx_term(context);
}

}  // namespace

int main(int argc, char **argv) {
    vxtest::makeDirs("/tmp/status/event-manager");
    if (::mkfifo(fifoPath, 0666) == -1) return 2;
    return torture::torment(argc, argv,
                            {{"vxevent: FIFO", fifo}, {"vxevent: publish", publish}, {"vxevent: legacy", legacy}});
}
