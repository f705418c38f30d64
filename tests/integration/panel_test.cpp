// SPDX-License-Identifier: MIT
// The front panel over HTTP: who is let in, what is refused, that orders reach the gateway and its changes the page.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// One request and everything that is answered.
class Connection {
public:
    explicit Connection(int port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const timeval patience{15, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    ~Connection() { ::close(fd_); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    bool send(const std::string &text) {
        return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    // Up to and with `until`; everything up to the end of the connection when it is "".
    std::string receive(const std::string &until = "") {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
        while (until.empty() ||
               (got_.find(until) == std::string::npos && std::chrono::steady_clock::now() < deadline)) {
            char piece[65536];
            const ssize_t got = ::recv(fd_, piece, sizeof piece, 0);
            if (got <= 0) break;
            got_.append(piece, static_cast<size_t>(got));
        }
        const size_t end = until.empty() ? std::string::npos : got_.find(until);
        const std::string text = got_.substr(0, end == std::string::npos ? end : end + until.size());
        got_.erase(0, text.size());
        return text;
    }

private:
    int fd_;
    std::string got_;
};

class Panel : public testing::Test {
protected:
    static void SetUpTestSuite() {
        if (vxtest::emulated()) return;
        process_ = std::make_unique<vxtest::Process>(
            std::vector<std::string>{vxtest::built("gateway/vxgateway"), "panel", "--net", "none"});
        const std::string address = process_->readLine();
        ASSERT_THAT(address, testing::MatchesRegex("http://127\\.0\\.0\\.1:[0-9]+/[0-9a-f]+/"));
        port_ = std::stoi(address.substr(17));
        path_ = address.substr(address.find('/', 17));
    }
    void SetUp() override {
        if (vxtest::emulated()) GTEST_SKIP() << "a gateway is made of the machine's own programs";
    }
    static void TearDownTestSuite() {
        if (process_ == nullptr) return;
        process_->signal(SIGTERM);
        EXPECT_EQ(process_->wait(), 0);
        process_.reset();
    }

    static std::string host() { return "127.0.0.1:" + std::to_string(port_); }
    static std::string own() { return "Host: " + host() + "\r\nOrigin: http://" + host() + "\r\n"; }
    static std::string answer(const std::string &request) {
        Connection connection(port_);
        connection.send(request);
        return connection.receive();
    }
    static std::string status(const std::string &request) { return answer(request).substr(0, 12); }
    static std::string get(const std::string &path, const std::string &headers) {
        return answer("GET " + path + " HTTP/1.1\r\n" + headers + "\r\n");
    }
    static std::string posting(const std::string &body, const std::string &headers = own()) {
        return "POST " + path_ + "order HTTP/1.1\r\n" + headers +
               "Content-Type: application/octet-stream\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
               body;
    }
    static std::string words(const std::vector<std::string> &all) {
        std::string body;
        for (const std::string &word : all) body += word + '\0';
        return body;
    }
    static std::string order(const std::vector<std::string> &all) { return answer(posting(words(all))); }

    // A page, once the server has noticed that enough earlier ones have gone; `start` is what came up to the first state.
    static std::unique_ptr<Connection> openPage(std::string &start) {
        std::unique_ptr<Connection> page;
        EXPECT_TRUE(vxtest::eventually([&] {
            page = std::make_unique<Connection>(port_);
            page->send("GET " + path_ + "events HTTP/1.1\r\n" + own() + "\r\n");
            start = page->receive("event: state");
            return start.find("HTTP/1.1 200") == 0;
        }));
        return page;
    }

    static inline std::unique_ptr<vxtest::Process> process_;
    static inline int port_ = 0;
    static inline std::string path_;
};

TEST_F(Panel, HandsOutThePageWithAStrictPolicy) {
    const std::string host_ = "Host: " + host() + "\r\n";
    const std::string page = get(path_, host_);
    EXPECT_THAT(page, StartsWith("HTTP/1.1 200"));
    EXPECT_THAT(page, HasSubstr("Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; "
                                "img-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'none'; "
                                "frame-ancestors 'none'\r\n"));
    EXPECT_THAT(page, HasSubstr("X-Content-Type-Options: nosniff"));
    EXPECT_THAT(page, HasSubstr("Referrer-Policy: no-referrer"));
    EXPECT_THAT(page, HasSubstr("Cache-Control: no-store"));
    EXPECT_THAT(page, HasSubstr("<html lang=\"en\">"));
    EXPECT_THAT(get(path_ + "panel.js", host_), HasSubstr("Content-Type: text/javascript"));
    EXPECT_THAT(get(path_ + "panel.css", host_), HasSubstr("Content-Type: text/css"));
    EXPECT_THAT(get(path_ + "icon.svg", host_), HasSubstr("Content-Type: image/svg+xml"));
    EXPECT_THAT(get(path_ + "forms", host_), HasSubstr("\"syntax\":\"input INPUT LEVEL\""));
    const std::string head = answer("HEAD " + path_ + " HTTP/1.1\r\n" + host_ + "\r\n");
    EXPECT_THAT(head, StartsWith("HTTP/1.1 200"));
    EXPECT_THAT(head, Not(HasSubstr("<html")));
}

TEST_F(Panel, RefusesOtherHostsOriginsAndAddresses) {
    const std::string port = std::to_string(port_);
    EXPECT_THAT(get(path_, "Host: localhost:" + port + "\r\n"), StartsWith("HTTP/1.1 200"));
    for (const std::string &headers :
         {std::string(), "Host: 127.0.0.1\r\n" + std::string(), "Host: evil.example:" + port + "\r\n",
          "Host: 127.0.0.1.evil.example:" + port + "\r\n", "Host: " + host() + "\r\nHost: " + host() + "\r\n",
          "Host: " + host() + "\r\nOrigin: http://evil.example\r\n", "Host: " + host() + "\r\nOrigin: null\r\n",
          "Host: " + host() + "\r\nOrigin: http://localhost:" + port + "\r\n",
          own() + "Origin: http://" + host() + "\r\n", "Host: " + host() + "\r\nSec-Fetch-Site: cross-site\r\n",
          "Host: " + host() + "\r\nSec-Fetch-Site: same-site\r\n"}) {
        const std::string refused = get(path_, headers);
        EXPECT_THAT(refused, StartsWith("HTTP/1.1 403")) << headers;
        EXPECT_THAT(refused, Not(HasSubstr("<html"))) << headers;
    }
    std::string wrong = path_;
    wrong[wrong.size() - 2] = wrong[wrong.size() - 2] == '0' ? '1' : '0';
    for (const std::string &path : {std::string("/"), wrong, path_.substr(0, path_.size() - 1), path_.substr(1),
                                    "/x" + path_, std::string("/favicon.ico"), std::string("/index.html")}) {
        EXPECT_THAT(get(path, own()), Not(StartsWith("HTTP/1.1 200"))) << path;
    }
    // An order needs an origin, and its own type, which other pages cannot send without having asked.
    EXPECT_EQ(status(posting(words({"input", "1", "1"}), "Host: " + host() + "\r\n")), "HTTP/1.1 403");
    EXPECT_EQ(status("POST " + path_ + "order HTTP/1.1\r\n" + own() +
                     "Content-Type: text/plain\r\nContent-Length: 2\r\n\r\nx"),
              "HTTP/1.1 415");
    EXPECT_THAT(order({"inputs", "--json"}), HasSubstr("\"output\":\"[0,0,0,0]\\u000a\""));
}

TEST_F(Panel, RefusesUnknownPathsAndMethods) {
    for (const char *path :
         {"nothing", "../etc/passwd", "%2e%2e/%2e%2e/etc/passwd", "panel.js/", "order", "index.html"})
        EXPECT_THAT(get(path_ + path, own()), StartsWith("HTTP/1.1 40")) << path;
    for (const char *method : {"PUT", "DELETE", "OPTIONS", "PATCH"}) {
        EXPECT_EQ(status(std::string(method) + " " + path_ + " HTTP/1.1\r\n" + own() + "\r\n"), "HTTP/1.1 405")
            << method;
    }
    EXPECT_EQ(status("BREW " + path_ + " HTTP/1.1\r\n" + own() + "\r\n"), "HTTP/1.1 400");
    EXPECT_EQ(status(std::string("\0\x16\x03\r\n\r\n", 7)), "HTTP/1.1 400");
    EXPECT_EQ(status("POST " + path_ + "panel.js HTTP/1.1\r\n" + own() +
                     "Content-Type: application/octet-stream\r\nContent-Length: 0\r\n\r\n"),
              "HTTP/1.1 404");
}

TEST_F(Panel, PassesOrdersOnAndSaysWhatBecameOfThem) {
    EXPECT_THAT(order({"input", "2", "1"}), HasSubstr("{\"status\":0,\"output\":\"\",\"error\":\"\"}"));
    EXPECT_THAT(order({"inputs", "--json"}), HasSubstr("[0,1,0,0]"));
    EXPECT_THAT(order({"input", "2", "0"}), HasSubstr("\"status\":0"));
    EXPECT_THAT(order({"input", "2", "7"}),
                HasSubstr("{\"status\":2,\"output\":\"\",\"error\":\"gw: LEVEL is a whole"));
    EXPECT_THAT(order({"wan", "cut"}),
                HasSubstr("{\"status\":1,\"output\":\"\",\"error\":\"gw: this gateway has no wan"));
    EXPECT_THAT(order({"frob"}), HasSubstr("\"status\":2"));
    EXPECT_THAT(order({"config", "set", "motto", "<b>&\" \xff"}), HasSubstr("\"status\":0"));
    EXPECT_THAT(order({"config", "list", "--json"}), HasSubstr("<b>&\\\\\\\" \\\\u00ff"));
}

TEST_F(Panel, TakesOrdersAndQueriesOnly) {
    for (const std::string &body :
         {std::string(), std::string("input"), words({"wait", "output", "1", "1"}), words({"watch"}),
          words({"watch", "last", "5", "--json"}), words({"deliver", "sms", "/etc/passwd"})}) {
        EXPECT_EQ(status(posting(body)), "HTTP/1.1 400") << body;
    }
}

TEST_F(Panel, BoundsWhatIsSent) {
    // The limit of gw for all words of an order.
    const std::string most = words({"note", std::string(32768 - 6, 'n')});
    EXPECT_EQ(most.size(), 32768U);
    EXPECT_THAT(answer(posting(most)), HasSubstr("\"status\":0"));
    EXPECT_EQ(status(posting(most + "x")), "HTTP/1.1 413");
    EXPECT_EQ(status(posting(std::string(1 << 20, 'x'))), "HTTP/1.1 413");
    EXPECT_EQ(
        status("POST " + path_ + "order HTTP/1.1\r\n" + own() +
               "Content-Type: application/octet-stream\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nnote\r\n0\r\n\r\n"),
        "HTTP/1.1 411");
    // A line or a header without an end: the connection ends, and the panel is still there.
    for (const std::string &endless : {std::string(200000, 'G'), "GET / HTTP/1.1\r\nX: " + std::string(200000, 'x')}) {
        Connection connection(port_);
        connection.send(endless);
        EXPECT_THAT(connection.receive(), Not(StartsWith("HTTP/1.1 200")));
    }
    EXPECT_THAT(get(path_ + "forms", own()), StartsWith("HTTP/1.1 200"));
}

TEST_F(Panel, BoundsConnectionsAndPages) {
    std::vector<std::unique_ptr<Connection>> open;
    for (int i = 0; i < 8; ++i) {
        open.push_back(std::make_unique<Connection>(port_));
        open.back()->send("GET " + path_ + "events HTTP/1.1\r\n" + own() + "\r\n");
        EXPECT_THAT(open.back()->receive("event: state"), StartsWith("HTTP/1.1 200")) << i;
    }
    EXPECT_THAT(get(path_ + "events", own()), StartsWith("HTTP/1.1 503"));
    EXPECT_THAT(get(path_ + "forms", own()), StartsWith("HTTP/1.1 200"));
    while (open.size() < 32) {
        open.push_back(std::make_unique<Connection>(port_));
        open.back()->send("GET ");
    }
    EXPECT_TRUE(vxtest::eventually([] { return get(path_ + "forms", own()).find("HTTP/1.1 503") == 0; }));
    open.clear();
    EXPECT_TRUE(vxtest::eventually([] { return get(path_ + "forms", own()).find("HTTP/1.1 200") == 0; }));
    std::string start;
    openPage(start);
}

TEST(PanelEnd, ASignalEndsTheGatewayWithItsProgram) {
    if (vxtest::emulated()) GTEST_SKIP() << "a gateway is made of the machine's own programs";
    for (const int signal : {SIGINT, SIGTERM}) {
        vxtest::makeDirs("/tmp/panel-kept");
        vxtest::Process process({vxtest::built("gateway/vxgateway"), "panel", "--net", "none", "--keep",
                                 "/tmp/panel-kept", "--", "sh", "-c", "gw note started; sleep 1000"});
        EXPECT_THAT(process.readLine(), StartsWith("http://127.0.0.1:"));
        process.signal(signal);
        EXPECT_EQ(process.wait(), 0);
        EXPECT_THAT(vxtest::readFile("/tmp/panel-kept/record.json"), HasSubstr("\"kind\":\"peer\""));
    }
}

TEST_F(Panel, TellsAnOpenPageOfEachChange) {
    std::string start;
    const auto page = openPage(start);
    EXPECT_THAT(start, HasSubstr("Content-Type: text/event-stream"));
    EXPECT_THAT(page->receive("\"inputs\":[0,0,0,0]"), HasSubstr("data: "));
    const auto before = std::chrono::steady_clock::now();
    EXPECT_THAT(order({"input", "3", "1"}), HasSubstr("\"status\":0"));
    EXPECT_THAT(page->receive("\"inputs\":[0,0,1,0]"), HasSubstr("event: state"));
    const auto taken = std::chrono::steady_clock::now() - before;
    std::printf("an order is seen after %lld ms\n",
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(taken).count()));
    order({"note", "one\xe2\x80\xa8line"});
    EXPECT_THAT(page->receive("\"kind\":\"note\",\"text\":\"one"), HasSubstr("event: record"));
    order({"input", "3", "0"});
}

TEST(PanelEnd, CtrlCInATerminalEndsItWithStatus0) {
    if (vxtest::emulated()) GTEST_SKIP() << "a gateway is made of the machine's own programs";
    const auto output = vxtest::run({"bash", "-c",
                                     "set -m; " + vxtest::shellCommand("gateway/vxgateway") +
                                         " panel --net none >/tmp/address & panel=$!\n"
                                         "until [ -s /tmp/address ]; do sleep 0.01; done\n"
                                         "kill -INT -- -$panel; wait $panel"});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_THAT(output.text, Not(HasSubstr("vxgateway:")));
}

TEST(PanelEnd, WrongPortsAreRefused) {
    if (vxtest::emulated()) GTEST_SKIP() << "a gateway is made of the machine's own programs";
    for (const char *port : {"-1", "65536", "x", ""}) {
        EXPECT_EQ(vxtest::run({vxtest::built("gateway/vxgateway"), "panel", "--port", port}).status, 2) << port;
    }
    EXPECT_EQ(vxtest::run({vxtest::built("gateway/vxgateway"), "run", "--port", "8080", "true"}).status, 2);
}

}  // namespace
