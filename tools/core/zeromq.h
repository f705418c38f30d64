// SPDX-License-Identifier: MIT
// ZeroMQ, loaded when a command needs it: its chain of libraries costs more to load than everything else here.
#pragma once

#include <zmq.h>

namespace tool {

// The functions that are used here. The list gives each its type and its name in the library, so that they cannot
// differ.
#define VX_ZEROMQ_FUNCTIONS(X) \
    X(zmq_close)               \
    X(zmq_connect)             \
    X(zmq_ctx_new)             \
    X(zmq_ctx_term)            \
    X(zmq_errno)               \
    X(zmq_getsockopt)          \
    X(zmq_poll)                \
    X(zmq_recv)                \
    X(zmq_setsockopt)          \
    X(zmq_socket)              \
    X(zmq_socket_monitor)      \
    X(zmq_strerror)

struct ZeroMq {
#define VX_MEMBER(function) decltype(&::function) function;
    VX_ZEROMQ_FUNCTIONS(VX_MEMBER)
#undef VX_MEMBER
};

// Loads it at the first call. Throws Failure where it is not installed.
const ZeroMq &zeroMq();

}  // namespace tool
