// SPDX-License-Identifier: MIT
// The web server of the panel: hands out the page, feeds it, passes its orders on.
//
// The page is for the one who started the gateway: an address with a random token, asked for by this name of this machine,
// from a page of this server. Everything below http://127.0.0.1:PORT/TOKEN/:
//
//   GET  "", panel.css, panel.js, icon.svg   the page
//   GET  forms                               the orders that gw knows, as JSON
//   GET  events[?trips]                      see feed.h; "?trips" asks for the round-trip times
//   POST order                               the words of gw, each ended by a zero byte; answered with a JSON object:
//                                            "status", "output" and "error" as those of gw
#ifndef VXGATEWAY_PANEL_SERVER_H
#define VXGATEWAY_PANEL_SERVER_H

#include <httplib.h>

#include <atomic>
#include <string>

#include "gateway/core/peer.h"

namespace vxgateway {

class PanelServer : private httplib::Server {
public:
    static constexpr int mostConnections = 32;
    static constexpr int mostFeeds = 8;

    // Serves the files of a directory on a socket that listens already. Throws std::runtime_error.
    PanelServer(int listener, const std::string &pages);

    std::string address() const;

    [[noreturn]] void run();

private:
    void addPage(const std::string &name, const std::string &file, const char *type);
    HandlerResponse guard(const httplib::Request &request, httplib::Response &response) const;
    void feed(const httplib::Request &request, httplib::Response &response);
    void serve(Descriptor connection);

    std::string pages_;
    int port_ = 0;
    std::string token_;
    std::atomic<int> connections_{0};
    std::atomic<int> feeds_{0};
};

}  // namespace vxgateway

#endif
