// SPDX-License-Identifier: MIT
// Calls the functions that use other libraries, in a program that is linked to none of these.
//
//     late_binding STEP...
//
// Each step prints one line; a step of several threads prints what all of them got.
#include <dlfcn.h>
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
std::string loaded() { return isLoaded("libzmq") ? "zmq" : "-"; }

std::string outcome(const void *socket) { return socket == nullptr ? "null" : "socket"; }

// The calls of a program that has no context, and may have no ZeroMQ.
std::string withoutContext() {
    vxevent_record record{};
    return outcome(create_legacy_source(nullptr)) + " " + outcome(register_legacy_sink(nullptr)) + " " +
           std::to_string(dispatch_legacy_event(nullptr, &record));
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
    const std::map<std::string, std::string (*)()> steps{
        {"loaded", loaded}, {"without-context", withoutContext}, {"threads", fromThreads}, {"plugin", withPlugin}};
    for (int i = 1; i < argc; ++i) {
        const auto step = steps.find(argv[i]);
        if (step == steps.end()) return 2;
        std::cout << step->second() << std::endl;
    }
    return 0;
}
