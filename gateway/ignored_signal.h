// SPDX-License-Identifier: MIT
#ifndef VXGATEWAY_IGNORED_SIGNAL_H
#define VXGATEWAY_IGNORED_SIGNAL_H

#include <csignal>

// Whether the caller has this process ignore a signal, as nohup does with SIGHUP. It then stays ignored: a handler
// would end what is to outlive the terminal.
inline bool isIgnored(int signal) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

#endif
