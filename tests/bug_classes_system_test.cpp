// SPDX-License-Identifier: MIT
// Classes of bugs that comparable public systems had, one test each: stack, files, commands, callbacks. The table in
// docs/testing.md lists the classes, also those that the tests of the families cover.
#include <pthread.h>
#include <signal.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/address.h>
#include <vxutils/cellular.h>
#include <vxutils/cfread.h>
#include <vxutils/command.h>
#include <vxutils/configreader.h>
#include <vxutils/digest.h>
#include <vxutils/eventsource.h>
#include <vxutils/file.h>
#include <vxutils/hashtable.h>
#include <vxutils/interface.h>
#include <vxutils/messagequeue.h>
#include <vxutils/simplesms.h>
#include <vxutils/timefmt.h>
#include <vxutils/vxevent.h>
#include <vxutils/vxstring.h>
#include <zmq.h>

#include <climits>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>

#include "support/bug_classes.h"
#include "support/call_hooks.h"
#include "support/descriptor_limit.h"
#include "support/process.h"
#include "support/syslog_capture.h"

VXTEST_HOOK_AS(ssize_t, sendfile, "sendfile64", (int out, int in, off_t *offset, size_t count),
               (out, in, offset, count))

namespace {

using testing::HasSubstr;
using vxtest::freeLines;
using vxtest::GuardedBuffer;
using vxtest::pageSize;
using vxtest::TextAtEnd;
using vxtest::writeFile;
using vxtest::writeProgram;

// ---- SIZE_MAX ----

const char *unreadable = nullptr;

void endAtTheUnreadablePage(int, siginfo_t *info, void *) { ::_exit(info->si_addr == unreadable ? 0 : 1); }

// There is no memory of this size: what is read in order faults at the first page that cannot be read, and nothing
// else is touched before.
template <typename Context>
int hashUpToTheUnreadablePage(unsigned long alreadyHashed, unsigned long length) {
    GuardedBuffer room(sizeof(Context)), data(pageSize);
    unreadable = data.data() + data.size();
    struct sigaction action {};
    action.sa_sigaction = endAtTheUnreadablePage;
    action.sa_flags = SA_SIGINFO;
    ::sigaction(SIGSEGV, &action, nullptr);
    const auto context = std::make_unique<Context>();
    context->initialize(0);
    const auto *const bytes = reinterpret_cast<const unsigned char *>(data.data());
    context->hash(bytes, alreadyHashed);
    context->hash(bytes, length);
    return 2;
}

TEST(BugClass, DigestsReadHugeLengthsInOrder) {
    for (const unsigned long already : {0UL, 63UL}) {
        for (const unsigned long length : {ULONG_MAX, ULONG_MAX - 62}) {
            EXPECT_EQ(vxtest::inChild([&] { return hashUpToTheUnreadablePage<Md5HashContext>(already, length); }), 0);
            EXPECT_EQ(vxtest::inChild([&] { return hashUpToTheUnreadablePage<Sha1HashContext>(already, length); }), 0);
        }
    }
}

// ---- the stack ----

void *useLargeInputs(void *) {
    constexpr size_t large = 320 << 10;  // more than the stack has
    const std::string text(large, 'x');
    char **arguments = nullptr;
    int count = 0;
    EXPECT_EQ(makeargv((text + " y").c_str(), &arguments, &count), 0);
    freeargv(arguments);
    EXPECT_EQ(xml_readattr(text.c_str(), "a"), nullptr);
    String string(text.c_str());
    string.concatf("%s", text.c_str());
    string.replace('x', 'y');
    EXPECT_EQ(string.length(), static_cast<long>(2 * large));
    EXPECT_EQ(cfread_open(text.c_str()), nullptr);  // logs the whole name
    writeFile("/tmp/bug-large", text + "=" + text + "\n");
    EXPECT_EQ(cfread_open("/tmp/bug-large"), nullptr);
    ConfigReader reader;
    reader.initialize(String("/tmp/bug-large"), 16);
    list_link lines{&lines, &lines};
    EXPECT_GT(read_file_lines("/tmp/bug-large", &lines), 0);
    freeLines(lines);
    EXPECT_NE(copy_file(text.c_str(), text.c_str()), 0);
    EXPECT_NE(create_directory(std::string(text).data()), 0);
    sockaddr_storage record{};
    EXPECT_NE(str2addr(text.c_str(), reinterpret_cast<sockaddr *>(&record)), 0);
    return nullptr;
}

TEST(BugClass, InputsDoNotSizeTheStack) {
    const vxtest::SyslogCapture log;
    pthread_attr_t attributes;
    ASSERT_EQ(::pthread_attr_init(&attributes), 0);
    ASSERT_EQ(::pthread_attr_setstacksize(&attributes, 256 << 10), 0);
    pthread_t thread;
    ASSERT_EQ(::pthread_create(&thread, &attributes, useLargeInputs, nullptr), 0);
    ::pthread_join(thread, nullptr);
    ::pthread_attr_destroy(&attributes);
    ::unlink("/tmp/bug-large");
}

// ---- names, files, commands ----

TEST(BugClass, NamesAreCopiesOfTheCallersTexts) {
    const auto name = [] { return std::make_unique<TextAtEnd>("name"); };
    int value = 0;
    INStringHashTable table(16);
    auto key = name();
    ASSERT_TRUE(table.addEntry(key->get(), &value));
    key.reset();
    void *found = nullptr;
    EXPECT_TRUE(table.getValueFromKey("name", &found));
    EXPECT_EQ(found, &value);

    writeFile("/tmp/bug-names", "first=1\n");
    cfread_table *const file = cfread_open("/tmp/bug-names");
    ASSERT_NE(file, nullptr);
    key = name();
    ASSERT_NE(cfread_set_entry(file, key->get(), key->get()), nullptr);
    key.reset();
    cfread_entry *entry = cfread_find_entry(file, "name");
    ASSERT_NE(entry, nullptr);
    entry = cfread_set_entry(file, entry->key, entry->value);  // frees the texts that it is given
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->value, "name");
    cfread_close(file);

    ConfigReader reader;
    ASSERT_TRUE(reader.initialize(String("/tmp/bug-names"), 16));
    const String kept = reader.getValue(String("first"), String("none"));
    reader.initialize(String("/tmp/missing"), 16);
    EXPECT_STREQ(kept.c_str(), "1");
}

TEST(BugClass, ACopyIsNeverMoreReadableThanItsSource) {
    writeFile("/tmp/bug-secret", "secret");
    ASSERT_EQ(::chmod("/tmp/bug-secret", 0600), 0);
    const mode_t umaskBefore = ::umask(0);
    mode_t whileEmpty = 0777;
    {
        const vxtest::Hooked look(vxtest::hooks::sendfile,
                                  [&](int out, int, off_t *, size_t) -> std::optional<ssize_t> {
                                      struct stat status {};
                                      EXPECT_EQ(::fstat(out, &status), 0);
                                      whileEmpty = status.st_mode & 0777;
                                      return std::nullopt;
                                  });
        EXPECT_EQ(copy_file("/tmp/bug-secret", "/tmp/bug-secret-copy"), 0);
    }
    EXPECT_EQ(whileEmpty, 0600U);

    EXPECT_EQ(write_file_atomic("/tmp/bug-secret-new", "secret", 6, 0, 0), 0);
    ::umask(umaskBefore);
    struct stat status {};
    ASSERT_EQ(::stat("/tmp/bug-secret-new", &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST(BugClass, ReplacingADanglingLinkDoesNotMakeItsTarget) {
    std::filesystem::remove_all("/tmp/bug-link");
    vxtest::makeDirs("/tmp/bug-link");
    ASSERT_EQ(::symlink("/tmp/bug-link/target", "/tmp/bug-link/name"), 0);
    EXPECT_EQ(write_file_atomic("/tmp/bug-link/name", "new", 3, 0, 0), 0);
    EXPECT_FALSE(vxtest::exists("/tmp/bug-link/target"));
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status("/tmp/bug-link/name")));
    EXPECT_EQ(vxtest::readFile("/tmp/bug-link/name"), "new");
}

TEST(BugClass, TemporaryFilesHaveRandomNamesAndOneReader) {
    std::filesystem::remove_all("/tmp/bug-names.d");
    vxtest::makeDirs("/tmp/bug-names.d");
    const mode_t umaskBefore = ::umask(0);
    std::set<std::string> names;
    for (int i = 0; i < 64; ++i) {
        const char *const name = create_tmpfile("/tmp/bug-names.d/file_XXXXXX");
        ASSERT_NE(name, nullptr);
        struct stat status {};
        ASSERT_EQ(::lstat(name, &status), 0);
        EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600));
        names.insert(name);
    }
    ::umask(umaskBefore);
    EXPECT_EQ(names.size(), 64U);
    std::set<std::string> beginnings;  // a counter or the time would leave most characters alike
    for (const std::string &name : names) beginnings.insert(name.substr(name.size() - 6, 3));
    EXPECT_GT(beginnings.size(), 32U);
}

TEST(BugClass, TextsFromOutsideReachNoShell) {
    const vxtest::SyslogCapture log;
    const std::string mark = "/tmp/bug-shell";
    ::unlink(mark.c_str());
    vxtest::makeDirs("/usr/local/sbin");
    for (const char *tool : {"/usr/sbin/brctl", "/usr/bin/pdb", "/usr/local/sbin/send-sms"}) {
        writeProgram(tool, "exit 0\n");
    }
    for (const std::string &text :
         {";touch " + mark, "$(touch " + mark + ")", "`touch " + mark + "`", "|touch " + mark, "\ntouch " + mark + "\n",
          "&touch " + mark + "&", "';touch " + mark + ";'", "\";touch " + mark + ";\"", ">" + mark}) {
        char members[64];
        bridge_members(("br0" + text).c_str(), members, sizeof members);
        pdb_find_provider(("26201" + text).c_str());
        CSimpleSMS("+49170" + text, "text").send();
        CSimpleSMS("+49170", text).send();
        _exec_command(0, "/bin/true", "true", text.c_str(), static_cast<const char *>(nullptr));
        EXPECT_FALSE(vxtest::exists(mark)) << text;
    }
    for (const char *tool : {"/usr/sbin/brctl", "/usr/bin/pdb", "/usr/local/sbin/send-sms"}) ::unlink(tool);
}

TEST(BugClass, OneMessageIsOneLineOfTheLog) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(cfread_open("/tmp/missing\n<0>kernel: forged\r\x1b[2J\x9b"), nullptr);
    EXPECT_NE(copy_file("/tmp/missing\n<0>kernel: forged", "/tmp/other"), 0);
    const std::vector<std::string> lines = log.takeRaw();
    EXPECT_EQ(lines.size(), 2U);
    for (const std::string &line : lines) {
        for (const char c : line) EXPECT_TRUE(static_cast<unsigned char>(c) >= ' ') << line;
        EXPECT_THAT(line, HasSubstr("\\x0A<0>kernel: forged"));
    }
}

// ---- callbacks ----

class Party final : public IFDEventsink, public ITimeoutEventsink, public IMQEventsink {
public:
    Party(CEPollEventsource *source, std::function<void()> act)
        : source_(source), act_(std::move(act)), queue_(this, source) {
        EXPECT_EQ(::pipe(pipe_), 0);
        EXPECT_EQ(::write(pipe_[1], "x", 1), 1);
        source->addSink(this, IFDEventsource::ET_READ);
        source->addTimer(this);
        EXPECT_EQ(queue_.init(), 0);
        EXPECT_EQ(queue_.send(CQMsg(1)), 0);
    }
    ~Party() override {
        source_->removeSink(this);
        source_->removeTimer(this);
        for (const int fd : pipe_) ::close(fd);
    }
    Party(const Party &) = delete;
    Party &operator=(const Party &) = delete;

    void onReadable() override { act(); }
    void onWritable() override {}
    int getFd() const override { return pipe_[0]; }
    void onTimeout(unsigned int) override { act(); }
    int getTimeoutMs() override { return 1; }
    bool isOneShot() override { return false; }
    void onMessage(CMessageQueue *, const CQMsg &) override { act(); }
    void onQueueError(CMessageQueue *) override {}

private:
    void act() const {
        const auto action = act_;  // outlives this object
        action();
    }

    CEPollEventsource *source_;
    std::function<void()> act_;
    CMessageQueue queue_;
    int pipe_[2] = {-1, -1};
};

TEST(BugClass, ACallbackMayDeleteEverything) {
    const vxtest::NoLeaks leaks;
    for (size_t calls = 1; calls <= 12; ++calls) {
        CEPollEventsource source;
        ASSERT_EQ(source.init(), 0);
        std::vector<std::unique_ptr<Party>> parties;
        size_t called = 0;
        const auto deleteAllAtLast = [&] {
            EXPECT_FALSE(parties.empty());
            if (++called < calls) return;
            parties.clear();
            source.terminate();
        };
        for (int i = 0; i < 4; ++i) parties.push_back(std::make_unique<Party>(&source, deleteAllAtLast));
        source.evtLoop();
        EXPECT_EQ(called, calls);
    }
}

// ---- ZeroMQ ----

TEST(BugClass, WithoutDescriptorsASocketIsRefused) {
    const int status = vxtest::inChild([] {
        void *const context = ::zmq_ctx_new();
        void *const first = create_legacy_source_with_addr(context, "inproc://bug");
        if (first == nullptr) return 1;
        for (size_t left = 0; left <= 3; ++left) {
            const vxtest::DescriptorLimit limit(left);
            std::vector<void *> sockets;
            while (void *const socket = register_legacy_sink_with_addr(context, "inproc://bug"))
                sockets.push_back(socket);
            if (sockets.size() > left) return 2;
            for (void *const socket : sockets) ::zmq_close(socket);
        }
        const vxevent_record record{};
        return dispatch_legacy_event(first, &record) == 0 ? 0 : 3;
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
