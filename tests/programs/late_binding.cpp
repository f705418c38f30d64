// SPDX-License-Identifier: MIT
// Calls the functions that use other libraries, in a program that is linked to none of these.
//
//     late_binding STEP...
//
// Each step prints one line; a step of several threads prints what all of them got.
#include <dlfcn.h>
#include <vxutils/statusinterface.h>
#include <vxutils/vxevent.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr const char *endpoint = "tcp://127.0.0.1:47055";

bool isLoaded(const std::string &library) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(library) != std::string::npos) return true;
    }
    return false;
}
std::string loaded() {
    return std::string(isLoaded("libzmq") ? "zmq " : "- ") + (isLoaded("libevent") ? "event" : "-");
}

std::string outcome(const void *socket) { return socket == nullptr ? "null" : "socket"; }

// The calls of a program that has no context, and may have no ZeroMQ.
std::string withoutContext() {
    vxevent_record record{};
    return outcome(create_legacy_source(nullptr)) + " " + outcome(register_legacy_sink(nullptr)) + " " +
           std::to_string(dispatch_legacy_event(nullptr, &record));
}

class Counter : public StatusFifoObserver {
public:
    void fifoDataReceived(bufferevent *, char *, unsigned long length) override { received_ += length; }
    unsigned long received() const { return received_; }

private:
    unsigned long received_ = 0;
};

constexpr const char *directory = "/tmp/status/late";

std::string withoutBase() {
    Counter counter;
    StatusInterface status;
    if (!status.setup(BASEPATH_STATUS, "/late")) return "no directory";
    return status.setupIpcRxFifo("/fifo", &counter) == 0 ? "no fifo" : "fifo";
}

// A plug-in brings the event base, with symbols that are its own, and is unloaded while a FIFO is in use.
std::string withPluginsBase(const char *file) {
    void *const plugin = ::dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) return ::dlerror();
    void *const base = reinterpret_cast<void *(*)()>(::dlsym(plugin, "event_init"))();
    const auto loop = reinterpret_cast<int (*)(void *, int)>(::dlsym(plugin, "event_base_loop"));
    const auto end = reinterpret_cast<void (*)(void *)>(::dlsym(plugin, "event_base_free"));
    Counter counter;
    StatusInterface status;
    if (!status.setup(BASEPATH_STATUS, "/late")) return "no directory";
    if (status.setupIpcRxFifo("/fifo", &counter) == 0) return "no fifo";
    ::dlclose(plugin);
    std::ofstream(std::string(directory) + "/fifo") << "message" << std::flush;
    constexpr int once = 1;
    loop(base, once);
    status.cleanup();
    end(base);
    return "received " + std::to_string(counter.received());
}
std::string withCoreBase() { return withPluginsBase("libevent_core-2.1.so.7"); }
std::string withWholeBase() { return withPluginsBase("libevent-2.1.so.7"); }

// The variants of one library, side by side.
std::string bothVariants() {
    const bool core = ::dlopen("libevent_core-2.1.so.7", RTLD_NOW | RTLD_LOCAL) != nullptr;
    const bool whole = ::dlopen("libevent-2.1.so.7", RTLD_NOW | RTLD_LOCAL) != nullptr;
    return core && whole ? "both" : "not both";
}

std::string fromThreads() {
    std::vector<std::string> results(8);
    std::vector<std::thread> threads;
    for (std::string &result : results) threads.emplace_back([&result] { result = withoutContext(); });
    for (std::thread &thread : threads) thread.join();
    for (const std::string &result : results) {
        if (result != results[0]) return "different: " + result + " and " + results[0];
    }
    return results[0];
}

// ZeroMQ comes with a plug-in, whose symbols are its own, and which is unloaded again.
std::string withPlugin() {
    void *const plugin = ::dlopen("libzmq.so.5", RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) return ::dlerror();
    const auto function = [plugin](const char *name) { return ::dlsym(plugin, name); };
    void *const context = reinterpret_cast<void *(*)()>(function("zmq_ctx_new"))();
    const auto close = reinterpret_cast<int (*)(void *)>(function("zmq_close"));
    const auto term = reinterpret_cast<int (*)(void *)>(function("zmq_ctx_term"));
    void *const source = create_legacy_source_with_addr(context, endpoint);
    if (source == nullptr) return "no socket";
    ::dlclose(plugin);
    const vxevent_record record{};
    const int sent = dispatch_legacy_event(source, &record);
    close(source);
    term(context);
    return "sent " + std::to_string(sent);
}

}  // namespace

int main(int argc, char **argv) {
    const std::map<std::string, std::string (*)()> steps{{"loaded", loaded},
                                                         {"without-context", withoutContext},
                                                         {"threads", fromThreads},
                                                         {"plugin", withPlugin},
                                                         {"without-base", withoutBase},
                                                         {"core-base", withCoreBase},
                                                         {"whole-base", withWholeBase},
                                                         {"both", bothVariants}};
    for (int i = 1; i < argc; ++i) {
        const auto step = steps.find(argv[i]);
        if (step == steps.end()) return 2;
        std::cout << step->second() << std::endl;
    }
    return 0;
}
