// SPDX-License-Identifier: MIT
#include "core/zeromq.h"

#include <dlfcn.h>

#include <array>
#include <string>

#include "core/failure.h"

namespace tool {

namespace {

constexpr const char *soname = "libzmq.so.5";

// Tells packagers what is loaded: "ELF dlopen metadata" of the UAPI group.
constexpr char noteText[] =
    R"([{"feature":"events","description":"vx event listen and publish","priority":"recommended",)"
    R"("soname":["libzmq.so.5"]}])";

struct Note {
    unsigned int ownerSize = sizeof "FDO", size = sizeof noteText, type = 0x407c0c0a;
    std::array<char, sizeof "FDO"> owner{'F', 'D', 'O'};
    alignas(4) std::array<char, sizeof noteText> content = std::to_array(noteText);
};
[[gnu::used, gnu::retain, gnu::section(".note.dlopen"), gnu::aligned(4)]] constexpr Note note{};

class Library {
public:
    Library() : handle_(::dlopen(soname, RTLD_NOW)) {
        if (handle_ == nullptr) throw Failure("ZeroMQ", std::string(::dlerror()) + "; listen and publish need it");
    }

    template <typename Function>
    void find(Function *&function, const char *name) const {
        function = reinterpret_cast<Function *>(::dlsym(handle_, name));
        if (function == nullptr) throw Failure("ZeroMQ", std::string(soname) + " has no function " + name);
    }

private:
    void *handle_;  // never closed: its threads may run until the process ends
};

ZeroMq load() {
    const Library library;
    ZeroMq zmq{};
#define VX_FIND(function) library.find(zmq.function, #function);
    VX_ZEROMQ_FUNCTIONS(VX_FIND)
#undef VX_FIND
    return zmq;
}

}  // namespace

const ZeroMq &zeroMq() {
    static const ZeroMq functions = load();
    return functions;
}

}  // namespace tool
