// SPDX-License-Identifier: MIT
#include "gateway/panel/server.h"

#include <netinet/in.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <thread>

#include "gateway/core/board.h"
#include "gateway/core/client.h"
#include "gateway/core/json.h"
#include "gateway/panel/feed.h"
#include "gateway/panel/stream.h"

namespace vxgateway {

namespace {

using httplib::Request;
using httplib::Response;

constexpr const char *wordsType = "application/octet-stream";  // which a page of another origin cannot send unasked

[[noreturn]] void fail(const char *what) { throw std::runtime_error(std::string(what) + ": " + std::strerror(errno)); }

std::string randomToken() {
    std::array<unsigned char, 16> bytes;
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) fail("random numbers");
    std::string token;
    for (const unsigned char byte : bytes) {
        token += "0123456789abcdef"[byte >> 4];
        token += "0123456789abcdef"[byte & 15];
    }
    return token;
}

// Takes the same time whatever `text` begins with.
bool beginsWith(const std::string &text, const std::string &secret) {
    unsigned int difference = text.size() < secret.size() ? 1 : 0;
    for (size_t i = 0; i < secret.size(); ++i) {
        const char one = i < text.size() ? text[i] : '\0';
        difference |= static_cast<unsigned char>(one ^ secret[i]);
    }
    return difference == 0;
}

void refuse(Response &response, int status, const std::string &why) {
    response.status = status;
    response.set_content(why + "\n", "text/plain; charset=utf-8");
}

Words wordsOf(const std::string &body) {
    Words words;
    for (size_t at = 0, end; (end = body.find('\0', at)) != std::string::npos; at = end + 1)
        words.push_back(body.substr(at, end - at));
    return words;
}

void order(const Request &request, Response &response) {
    const Words words = wordsOf(request.body);
    if (words.empty() || request.body.back() != '\0' || request.body.size() > mostRequest)
        return refuse(response, 400, "words, each ended by a zero byte, of at most 32768 bytes");
    const Group group = groupOf(words);
    if ((group != Group::order && group != Group::query) || words[0] == "watch")
        return refuse(response, 400, "the panel takes orders and queries only");
    const Descriptor gateway = connectToGateway();
    if (gateway.get() == -1 || !sendRequest(gateway.get(), request.body))
        return refuse(response, 502, "the gateway has ended");
    std::string output;
    std::string error;
    while (const auto packet = receivePacket(gateway.get())) {
        if (packet->kind == 'x') {
            Json answer = Json::object();
            answer.number("status", packet->text[0]).text("output", output).text("error", error);
            return response.set_content(answer.done(), "application/json");
        }
        (packet->kind == 'o' ? output : error) += packet->text;
    }
    refuse(response, 502, "the gateway has ended");
}

std::string formsJson() {
    Json array = Json::array();
    for (const Form &form : forms()) {
        if (form.group == Group::order)
            array.add(Json::object().text("syntax", form.syntax).text("purpose", form.purpose).done());
    }
    return array.done();
}

}  // namespace

PanelServer::PanelServer(int listener, const std::string &pages) : pages_(pages), token_(randomToken()) {
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    if (::getsockname(listener, reinterpret_cast<sockaddr *>(&bound), &size) == -1) fail("the panel's socket");
    port_ = ntohs(bound.sin_port);
    svr_sock_ = listener;  // the server ends its answers early without one
    set_payload_max_length(mostRequest);
    set_default_headers(
        {{"Content-Security-Policy",
          "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
          "base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
         {"X-Content-Type-Options", "nosniff"},
         {"Referrer-Policy", "no-referrer"},
         {"Cross-Origin-Resource-Policy", "same-origin"},
         {"Cross-Origin-Opener-Policy", "same-origin"},
         {"Cache-Control", "no-store"}});
    set_pre_routing_handler([this](const Request &request, Response &response) { return guard(request, response); });
    addPage("", "index.html", "text/html; charset=utf-8");
    addPage("panel.css", "panel.css", "text/css; charset=utf-8");
    addPage("panel.js", "panel.js", "text/javascript; charset=utf-8");
    addPage("icon.svg", "icon.svg", "image/svg+xml");
    const std::string top = "/" + token_ + "/";
    Get(top + "forms",
        [](const Request &, Response &response) { response.set_content(formsJson(), "application/json"); });
    Get(top + "events", [this](const Request &request, Response &response) { feed(request, response); });
    Post(top + "order", order);
}

std::string PanelServer::address() const { return "http://127.0.0.1:" + std::to_string(port_) + "/" + token_ + "/"; }

void PanelServer::addPage(const std::string &name, const std::string &file, const char *type) {
    const std::string path = pages_ + "/" + file;
    if (!std::filesystem::is_regular_file(path)) throw std::runtime_error(path + ": not there");
    Get("/" + token_ + "/" + name,
        [path, type](const Request &, Response &response) { response.set_content(readText(path), type); });
}

httplib::Server::HandlerResponse PanelServer::guard(const Request &request, Response &response) const {
    const auto refused = [&](int status, const char *why) {
        refuse(response, status, why);
        return HandlerResponse::Handled;
    };
    // A page of another site that has its name resolve to this machine asks by that name.
    const std::string host = request.get_header_value("Host");
    const std::string port = ":" + std::to_string(port_);
    if (request.get_header_value_count("Host") != 1 || (host != "127.0.0.1" + port && host != "localhost" + port))
        return refused(403, "wrong host");
    const size_t origins = request.get_header_value_count("Origin");
    const bool ownOrigin = origins == 1 && request.get_header_value("Origin") == "http://" + host;
    if ((origins > 0 || request.method == "POST") && !ownOrigin) return refused(403, "wrong origin");
    const std::string site = request.get_header_value("Sec-Fetch-Site");
    if (!site.empty() && site != "same-origin" && site != "none") return refused(403, "wrong origin");
    if (!beginsWith(request.path, "/" + token_ + "/")) return refused(403, "wrong address");
    if (request.method != "GET" && request.method != "POST" && request.method != "HEAD") {
        response.set_header("Allow", "GET, HEAD, POST");
        return refused(405, "this method is not used here");
    }
    if (request.has_header("Transfer-Encoding")) return refused(411, "a length is needed");
    if (request.method == "POST" && request.get_header_value("Content-Type") != wordsType)
        return refused(415, "an order is application/octet-stream");
    return HandlerResponse::Unhandled;
}

void PanelServer::feed(const Request &request, Response &response) {
    if (request.method == "HEAD") return;
    if (feeds_.fetch_add(1) >= mostFeeds) {
        --feeds_;
        return refuse(response, 503, "too many pages are open");
    }
    const auto source = std::make_shared<Feed>(request.has_param("trips"));
    response.set_chunked_content_provider(
        "text/event-stream",
        [source](size_t, httplib::DataSink &sink) {
            if (!sink.is_writable()) return false;  // the page was closed
            const auto events = source->next();
            if (!events) sink.done();
            return !events || events->empty() || sink.write(events->data(), events->size());
        },
        [this](bool) { --feeds_; });
}

void PanelServer::serve(Descriptor connection) {
    BoundedStream stream(std::move(connection));
    bool closed = false;
    (void)process_request(stream, true, closed, nullptr);
    stream.finish();
}

void PanelServer::run() {
    for (;;) {
        Descriptor connection(::accept4(svr_sock_, nullptr, nullptr, SOCK_CLOEXEC));
        if (connection.get() == -1) {
            if (errno != EINTR && errno != ECONNABORTED) ::usleep(10000);  // out of descriptors: some will be closed
            continue;
        }
        if (connections_.fetch_add(1) >= mostConnections) {
            --connections_;
            constexpr std::string_view busy =
                "HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
            (void)::send(connection.get(), busy.data(), busy.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            continue;
        }
        std::thread([this, fd = connection.release()] {
            serve(Descriptor(fd));
            --connections_;
        }).detach();
    }
}

}  // namespace vxgateway
