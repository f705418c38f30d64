// SPDX-License-Identifier: MIT
// wan_supervisor: watches a WAN link, as a daemon of the firmware would.
//
// The loop thread decides; what may block (pings, the modem daemon, the SMS tool) runs in worker threads that hand
// their results to the loop through a message queue. Configuration comes from the configuration daemon, is read at
// start and again on SIGHUP; the loop asks for it and goes on until each answer is there. What is known is in the status
// tree under "wan". A change of the link and of the alarm input is told to the event manager and the device log, a lost
// link also by SMS; a digital output shows whether the link is up. SIGTERM ends it.
#include <signal.h>
#include <sys/signalfd.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/configd.h>
#include <vxutils/dio.h>
#include <vxutils/eventsource.h>
#include <vxutils/messagequeue.h>
#include <vxutils/ping.h>
#include <vxutils/qxlog.h>
#include <vxutils/simplesms.h>
#include <vxutils/statusinterface.h>
#include <vxutils/strutil.h>
#include <vxutils/vxevent.h>
#include <vxutils/wwanmd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace {

// Numbers that the event manager and the device log know these events by.
enum Event : unsigned int { EVENT_LINK = 100, EVENT_ALARM = 101 };

// What the workers tell the loop.
enum Message { MESSAGE_REPLY, MESSAGE_LOSS, MESSAGE_MODEM };

void tell(const char *format, ...) __attribute__((format(printf, 1, 2)));
void tell(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::putchar('\n');
    std::fflush(stdout);
}

struct Settings {
    std::string interface = "wan0";
    std::string gateway;
    std::string target;
    std::string smsNumber;
    int card = 0;
    int interval_ms = 1000;  // between two pings
    int losses = 2;          // lost pings in a row that make a lost link
    int alarmInput = 1;
    int stateOutput = 1;
};

// Reads the settings from the configuration daemon without waiting for it: one request after the other, each answer when
// the loop sees it. configd_get() would wait up to 10 s for an answer that never comes, and SIGTERM with it. What the
// daemon does not know keeps its value. As long as it does not answer, it is asked again.
class SettingsReader : public IFDEventsink, public ITimeoutEventsink {
public:
    // `done` is called with true when everything was read, with false once when the daemon does not answer.
    SettingsReader(CEPollEventsource &loop, std::function<void(bool)> done) : loop_(loop), done_(std::move(done)) {}
    ~SettingsReader() override { close(); }
    SettingsReader(const SettingsReader &) = delete;
    SettingsReader &operator=(const SettingsReader &) = delete;

    void read() {
        complained_ = false;
        if (!loop_.activeTimer(this)) loop_.addTimer(this);
        begin();
    }
    const Settings &settings() const { return settings_; }

    int getFd() const override { return config_->fd; }
    void onWritable() override {}
    void onReadable() override {
        std::array<char, CONFIGD_MSG_LEN> answer{};
        const int length = configd_recv(config_, answer.data(), static_cast<int>(answer.size()));
        if (length < 2) return;
        waits_ = false;
        put(std::string(answer.data(), static_cast<size_t>(length) - 2));  // without newline and NUL
        if (++key_ < keys.size()) return ask();
        loop_.removeTimer(this);
        close();
        done_(true);
    }

    // Twice a second while there is something to read. After 2 s without an answer the request or the daemon is lost.
    int getTimeoutMs() override { return 500; }
    bool isOneShot() override { return false; }
    void onTimeout(unsigned int expirations) override {
        constexpr unsigned int patience = 4;
        ticks_ += expirations;
        if (waits_ && ticks_ < patience) return;
        if (!complained_) done_(false);
        complained_ = true;
        begin();
    }

private:
    static constexpr std::array keys{"wan.interface",   "wan.gateway", "wan.target",      "wan.sms",         "wan.card",
                                     "wan.interval_ms", "wan.losses",  "wan.alarm_input", "wan.state_output"};

    // With a new socket, so that late answers to earlier requests are not taken for those to the next.
    void begin() {
        close();
        key_ = 0;
        ticks_ = 0;
        config_ = configd_open();
        if (config_ == nullptr) return;
        loop_.addSink(this, IFDEventsource::ET_READ);
        ask();
    }

    void ask() {
        const std::string request = std::string("?") + keys[key_] + "\n";
        const int length = static_cast<int>(request.size()) + 1;
        ticks_ = 0;
        waits_ = configd_send(config_, request.c_str(), length) == length;
    }

    void put(const std::string &value) {
        const std::array<std::string *, 4> texts{&settings_.interface, &settings_.gateway, &settings_.target,
                                                 &settings_.smsNumber};
        const std::array<int *, 5> numbers{&settings_.card, &settings_.interval_ms, &settings_.losses,
                                           &settings_.alarmInput, &settings_.stateOutput};
        if (value.empty()) return;
        if (key_ < texts.size()) {
            *texts[key_] = value;
        } else if (is_number(value.c_str()) != 0) {
            *numbers[key_ - texts.size()] = static_cast<int>(std::strtol(value.c_str(), nullptr, 10));
        }
    }

    void close() {
        if (config_ != nullptr && config_->fd != -1) loop_.removeSink(this);
        configd_close(config_);
        config_ = nullptr;
        waits_ = false;
    }

    CEPollEventsource &loop_;
    std::function<void(bool)> done_;
    Settings settings_;
    configd_handle *config_ = nullptr;
    size_t key_ = 0;
    unsigned int ticks_ = 0;  // since the last request
    bool waits_ = false;      // for an answer
    bool complained_ = false;
};

// A value that the loop and a worker both know.
template <typename T>
class Shared {
public:
    T get() const {
        const std::lock_guard lock(mutex_);
        return value_;
    }
    void set(const T &value) {
        const std::lock_guard lock(mutex_);
        value_ = value;
    }

private:
    mutable std::mutex mutex_;
    T value_{};
};

// A thread that does one thing after another until it is told to stop.
class Worker {
public:
    explicit Worker(std::function<std::chrono::milliseconds()> work)
        : work_(std::move(work)), thread_([this] { run(); }) {}
    ~Worker() {
        {
            const std::lock_guard lock(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;

    void hurry() {
        {
            const std::lock_guard lock(mutex_);
            hurry_ = true;
        }
        wake_.notify_all();
    }

private:
    void run() {
        std::unique_lock lock(mutex_);
        while (!stop_) {
            hurry_ = false;
            lock.unlock();
            const auto pause = work_();
            lock.lock();
            wake_.wait_for(lock, pause, [this] { return stop_ || hurry_; });
        }
    }

    std::function<std::chrono::milliseconds()> work_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    bool hurry_ = false;
    std::thread thread_;
};

struct ModemReport {
    int result;  // of wwanmd_command(), or -11 while the card is in reset
    std::string answer;
};

// Milliseconds to the target and back, negative when no reply came.
double pingTarget(const Settings &settings) {
    constexpr unsigned int timeout_ms = 500;
    constexpr int size = 48;
    timespec roundTrip{};
    const int result = __rawping(settings.interface.c_str(), settings.target.c_str(), settings.gateway.c_str(), nullptr,
                                 nullptr, timeout_ms, size, &roundTrip, nullptr);
    if (result != 0) return -1;
    return static_cast<double>(roundTrip.tv_sec) * 1e3 + static_cast<double>(roundTrip.tv_nsec) / 1e6;
}

// Holds the connection to the modem daemon of a card, makes it anew when the card changes or the daemon was away.
class Modem {
public:
    ~Modem() { wwanmd_free(handle_); }

    ModemReport askForSignal(int card) {
        if (wwanmd_in_reset(card) == 1) return {-11, ""};
        if (handle_ == nullptr || handle_->card != card) {
            wwanmd_free(handle_);
            handle_ = wwanmd_init(card, "wan-supervisor");
        }
        if (handle_ == nullptr) return {-1, ""};
        auto message = std::make_unique<wwanmd_msg>();
        message->len = static_cast<int>(strlcpy(message->data, "signal", sizeof message->data));
        message->timeout = 5;
        const int result = wwanmd_command(handle_, message.get());
        return {result, stripwhite(message->data)};
    }

private:
    wwanmd_handle *handle_ = nullptr;
};

// Short messages wait here for the tool that sends them, which takes its time.
class Outbox {
public:
    Outbox() : worker_([this] { return sendAll(); }) {}

    void send(const std::string &number, const std::string &text) {
        if (number.empty()) return;
        {
            const std::lock_guard lock(mutex_);
            waiting_.emplace_back(number, text);
        }
        worker_.hurry();
    }

private:
    std::chrono::milliseconds sendAll() {
        for (;;) {
            std::unique_lock lock(mutex_);
            if (waiting_.empty()) return std::chrono::hours(1);
            CSimpleSMS message = waiting_.front();
            waiting_.pop_front();
            lock.unlock();
            tell("sms to %s: \"%s\" %s", message.getNumber().c_str(), message.getText().c_str(),
                 message.send() == 0 ? "sent" : "NOT sent");
        }
    }

    std::mutex mutex_;
    std::deque<CSimpleSMS> waiting_;
    Worker worker_;
};

// The daemon's signals are read by its loop. Blocked before any thread starts, since threads inherit that.
int openSignals() {
    sigset_t handled;
    ::sigemptyset(&handled);
    for (const int signal : {SIGHUP, SIGTERM, SIGINT}) ::sigaddset(&handled, signal);
    ::pthread_sigmask(SIG_BLOCK, &handled, nullptr);
    return ::signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK);
}

class Supervisor : public IMQEventsink, public ITimeoutEventsink, public IFDEventsink {
public:
    explicit Supervisor(int signals) : signals_(signals) {}
    ~Supervisor() override {
        if (signals_ >= 0) ::close(signals_);
    }

    int run() {
        if (signals_ == -1 || loop_.init() != 0 || queue_.init() != 0) return 1;
        status_.setup(BASEPATH_STATUS, "/wan");
        status_.setStatus("/link", "unknown");
        status_.setStatus("/alarm", "off");
        showLosses();

        loop_.addSink(this, IFDEventsource::ET_READ);
        loop_.addTimer(this);
        reader_.read();
        loop_.evtLoop();
        pings_.reset();
        polls_.reset();
        dio_setValue(settings_.stateOutput, 0);
        status_.setStatus("/link", "unwatched");
        tell("ended");
        return 0;
    }

    // Workers' side: measures, reports, says how long to wait.
    std::chrono::milliseconds watchLink() {
        const Settings settings = shared_.get();
        const double roundTrip_ms = pingTarget(settings);
        if (roundTrip_ms >= 0) roundTrip_.set(roundTrip_ms);
        queue_.send(CQMsg(roundTrip_ms >= 0 ? MESSAGE_REPLY : MESSAGE_LOSS));
        return std::chrono::milliseconds(settings.interval_ms);
    }

    std::chrono::milliseconds watchModem() {
        report_.set(modemDaemon_.askForSignal(shared_.get().card));
        queue_.send(CQMsg(MESSAGE_MODEM));
        return std::chrono::milliseconds(500);
    }

    // Loop's side: one message per wake-up.
    void onMessage(CMessageQueue *, const CQMsg &message) override {
        switch (message.code) {
            case MESSAGE_REPLY:
            case MESSAGE_LOSS:
                return onPing(message.code == MESSAGE_REPLY);
            case MESSAGE_MODEM:
                return onModem(report_.get());
        }
    }
    void onQueueError(CMessageQueue *) override { loop_.terminate(); }

    // The alarm input is looked at ten times a second.
    int getTimeoutMs() override { return 100; }
    bool isOneShot() override { return false; }
    void onTimeout(unsigned int) override {
        unsigned char on = 0;
        if (dio_roValue(static_cast<unsigned int>(settings_.alarmInput), &on) != DIO_OK || on == alarm_) return;
        alarm_ = on;
        status_.setStatus("/alarm", on != 0 ? "on" : "off");
        report(EVENT_ALARM, on, on != 0 ? "alarm input raised" : "alarm input released");
    }

    // Signals come as data.
    int getFd() const override { return signals_; }
    void onWritable() override {}
    void onReadable() override {
        signalfd_siginfo got{};
        if (::read(signals_, &got, sizeof got) != sizeof got) return;
        if (got.ssi_signo != SIGHUP) return loop_.terminate();
        reader_.read();
    }

private:
    void onSettings(bool complete) {
        if (!complete) return tell("the configuration daemon does not answer");
        settings_ = reader_.settings();
        shared_.set(settings_);
        if (pings_) {
            return tell("configuration read again: target %s, %d losses make a lost link", settings_.target.c_str(),
                        settings_.losses);
        }
        pings_.emplace([this] { return watchLink(); });
        polls_.emplace([this] { return watchModem(); });
        tell("watching %s by %s on %s", settings_.target.c_str(), settings_.gateway.c_str(),
             settings_.interface.c_str());
    }

    void onPing(bool reply) {
        if (!reply || lost_ > 0) {
            lost_ = reply ? 0 : lost_ + 1;
            showLosses();
        }
        if (reply) {
            const int tenths = static_cast<int>(roundTrip_.get() * 10);
            String text;
            status_.setStatus("/round-trip-ms", text.format("%d.%d", tenths / 10, tenths % 10));
        }
        const bool up = reply || (up_ && lost_ < settings_.losses);
        if (up == up_ && known_) return;
        up_ = up;
        known_ = true;
        dio_setValue(settings_.stateOutput, up ? 1 : 0);
        status_.setStatus("/link", up ? "up" : "down");
        const std::string text = std::string("WAN link ") + (up ? "up, " : "lost, ") + settings_.target;
        report(EVENT_LINK, up ? 1 : 0, text.c_str());
        if (!up) outbox_.send(settings_.smsNumber, text);
    }

    void showLosses() {
        String text;
        status_.setStatus("/lost-pings", text.format("%d", lost_));
    }

    void onModem(const ModemReport &modem) {
        const std::string text = modem.result == 0     ? "signal" + (modem.answer.empty() ? "" : " " + modem.answer)
                                 : modem.result == -11 ? std::string("in reset")
                                                       : "no answer";
        if (text == modem_) return;
        modem_ = text;
        status_.setStatus("/modem", text.c_str());
        tell("modem of card %d: %s", settings_.card, text.c_str());
    }

    void report(Event event, unsigned int param, const char *text) {
        tell("%s", text);
        qxlog(static_cast<int>(event), text);
        vxevent(event, param, text);
    }

    CEPollEventsource loop_;
    CMessageQueue queue_{this, &loop_};
    StatusInterface status_;
    SettingsReader reader_{loop_, [this](bool complete) { onSettings(complete); }};
    Settings settings_;  // the loop's own
    Shared<Settings> shared_;
    Shared<double> roundTrip_;
    Shared<ModemReport> report_;
    Outbox outbox_;
    Modem modemDaemon_;
    std::optional<Worker> pings_;
    std::optional<Worker> polls_;
    std::string modem_;
    int signals_;
    int lost_ = 0;
    bool up_ = true;
    bool known_ = false;
    unsigned char alarm_ = 0;
};

}  // namespace

int main() {
    setlogmask(LOG_UPTO(LOG_INFO));  // the steps of every ping are for the day when something does not work
    Supervisor supervisor(openSignals());
    return supervisor.run();
}
