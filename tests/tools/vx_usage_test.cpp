// SPDX-License-Identifier: MIT
// What all commands of vx have in common: usage, help, output, terminals, pipes, completion, manual pages.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "support/board.h"
#include "support/emulation.h"
#include "support/files.h"
#include "support/vx.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using vxtest::vx;
using vxtest::vxJson;
using vxtest::vxScript;
using vxtest::writeFile;

// The source tree; the environment variable VXTEST_SOURCE_DIR names another place where its files lie (a board).
const std::string source = [] {
    const char *given = std::getenv("VXTEST_SOURCE_DIR");
    return std::string(given != nullptr ? given : VXTEST_SOURCE_DIR);
}();

std::vector<std::string> linesOf(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// "COMMAND" or "COMMAND SUBCOMMAND" of every usage line.
std::set<std::string> allVerbs() {
    std::set<std::string> verbs;
    for (const std::string &line : linesOf(vx({"help"}).out)) {
        if (line.rfind("  ", 0) != 0) continue;
        const std::string command = line.substr(2, line.find(' ', 2) - 2);
        for (const std::string &usage : linesOf(vx({"help", command}).out)) {
            if (usage.rfind("usage: vx ", 0) != 0) continue;
            std::istringstream words(usage.substr(10));
            std::string name;
            std::string verb;
            words >> name >> verb;
            const bool hasVerb = !verb.empty() && verb[0] >= 'a' && verb[0] <= 'z';
            verbs.insert(hasVerb ? name + " " + verb : name);
        }
    }
    return verbs;
}

std::vector<std::string> wordsOf(const std::string &text) {
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string word; in >> word;) words.push_back(word);
    return words;
}

// ---- usage

TEST(VxUsage, NothingIsWrongUsage) {
    const auto result = vx({});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, HasSubstr("usage: vx "));
}

TEST(VxUsage, UnknownNamesSuggestTheNearest) {
    EXPECT_THAT(vx({"stats", "list"}).err, StartsWith("vx: unknown command 'stats'; did you mean 'status'?\n"));
    EXPECT_THAT(vx({"confgi"}).err, HasSubstr("did you mean 'config'?"));
    EXPECT_THAT(vx({"config", "gte"}).err, StartsWith("vx: config: unknown subcommand 'gte'; did you mean 'get'?\n"));
    EXPECT_THAT(vx({"help", "digset"}).err, HasSubstr("did you mean 'digest'?"));
    EXPECT_THAT(vx({"zzzzzzzz"}).err, Not(HasSubstr("did you mean")));
    EXPECT_THAT(vx({"x"}).err, Not(HasSubstr("did you mean")));
    EXPECT_EQ(vx({"stats"}).status, 2);
    EXPECT_EQ(vx({""}).status, 2);
    EXPECT_EQ(vx({std::string(100000, 'c')}).status, 2);
}

TEST(VxUsage, EveryCommandHasHelpAndRefusesUnknownOptions) {
    const auto verbs = allVerbs();
    EXPECT_GT(verbs.size(), 50U);
    size_t number = 0;
    for (const std::string &verb : verbs) {
        // The table is the same on both machines, and each start takes long under the emulator.
        if (vxtest::emulated() && ++number % 8 != 1) continue;
        auto words = wordsOf(verb);
        words.emplace_back("--help");
        auto result = vx(words);
        EXPECT_EQ(result.status, 0) << verb;
        EXPECT_THAT(result.out, StartsWith("usage: vx " + verb)) << verb;
        EXPECT_EQ(result.err, "");
        words.back() = "--no-such-option";
        result = vx(words);
        EXPECT_EQ(result.status, 2) << verb;
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, HasSubstr("unknown option --no-such-option\nusage: vx " + verb)) << verb;
        words.back() = "-Z";
        EXPECT_THAT(vx(words).err, HasSubstr("unknown option -Z\n")) << verb;
    }
}

TEST(VxUsage, OptionsMayStandAnywhereBeforeTheDashes) {
    writeFile("/tmp/status/x", "1");
    const std::string json = R"([{"name":"x","value":"1"}])"
                             "\n";
    EXPECT_EQ(vx({"-j", "status", "get", "x"}).out, json);
    EXPECT_EQ(vx({"status", "-j", "get", "x"}).out, json);
    EXPECT_EQ(vx({"status", "get", "x", "--json"}).out, json);
    EXPECT_EQ(vx({"-jq", "status", "get", "--", "x"}).out, json);
    EXPECT_EQ(vx({"--js", "status", "get", "x"}).out, json) << "abbreviated";
    EXPECT_EQ(vx({"status", "get", "x", "--", "--json"}).status, 1) << "a name after the dashes";
    EXPECT_THAT(vx({"status", "watch", "--for"}).err, HasSubstr("--for needs a value"));
    EXPECT_THAT(vx({"ping", "-c"}).err, HasSubstr("-c needs a value"));
    EXPECT_EQ(vx({"status", "list", "--nv=yes"}).status, 2);
}

TEST(VxUsage, QuietIsQuietButForWrongUsage) {
    const auto result = vx({"-q", "status", "get", "none"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out + result.err, "");
    EXPECT_NE(vx({"-q", "status", "get"}).err, "");
}

TEST(VxUsage, TellsItsVersion) {
    const auto result = vx({"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "vx 1.0.0\n");
}

TEST(VxUsage, MessagesAreOneLineWhateverTheName) {
    const auto result = vx({"status", "get", "a\n\x1b[31m\xff"});
    EXPECT_EQ(result.err, "vx: status get: a\\0012\\0033[31m\\0377: No such file or directory\n");
}

TEST(VxUsage, AnEmptyNameIsShownInTheMessage) {
    for (const char *command : {"route", "link", "storage", "addr", "ping -c 1", "ping -c 1 -I", "digest md5",
                                "config list --file", "lock x --", "run --"}) {
        auto words = wordsOf(command);
        words.emplace_back();
        if (words.size() == 5) words.emplace_back("127.0.0.1");  // after -I
        EXPECT_THAT(vx(words).err, HasSubstr(": '': ")) << command;
    }
}

// ---- the table of commands

TEST(VxTable, HelpIsValidJson) { vxJson("help", {"help"}); }

TEST(VxTable, EverySubcommandHasASchemaAndNoneIsLeftOver) {
    std::set<std::string> expected{"text", "done"};
    for (std::string verb : allVerbs()) {
        if (verb == "lock") continue;  // prints what its command prints
        std::replace(verb.begin(), verb.end(), ' ', '-');
        expected.insert(verb);
    }
    std::set<std::string> found;
    for (const auto &entry : fs::directory_iterator(source + "/tools/schemas")) {
        found.insert(entry.path().filename().string().substr(0, entry.path().filename().string().find('.')));
    }
    EXPECT_EQ(found, expected);
}

// Runs a shell script while all peers of the virtual gateway run.
vxtest::VxResult inGateway(const std::string &script) {
    return vxScript("top=" + source + "\nexport PATH=" + vxtest::built("gateway") +
                    ":$PATH\npeers=()\n"
                    "cp " +
                    vxtest::built("vxutils/libvxutils.so.1.0.0") +
                    " /usr/lib/\n"
                    "mkdir -p /var/run/configd /tmp/status /nvstatus /var/lock\n"
                    "[ -e /etc/fstab ] || : >/etc/fstab\n"
                    "printf 'PRODUCT=\"QX 310\"\\n' >/etc/default/system-info\n"
                    "source " +
                    source + "/demo/gateway.sh\ngateway_up >/dev/null\n" + script +
                    "kill \"${peers[@]}\"; wait 2>/dev/null\n");
}

// ---- the program as a file

class VxFile : public testing::Test {
protected:
    void SetUp() override {
        if (!vxtest::exists("/usr/bin/readelf")) GTEST_SKIP() << "no readelf on this machine";
    }
    static std::string readelf(const std::string &option) {
        const auto output = vxtest::run({"readelf", option, vxtest::built("tools/vx")});
        EXPECT_EQ(output.status, 0) << output.text;
        return output.text;
    }
};

// Every start pays for what the program is linked to.
TEST_F(VxFile, NeedsOnlyTheLibraryAndTheCompilersLibraries) {
    const std::vector<std::string> known{"libvxutils.", "libstdc++.", "libgcc_s.", "libc.",
                                         "libm.",       "ld-linux",   "libasan.",  "libubsan."};
    int needed = 0;
    for (const std::string &line : linesOf(readelf("-dW"))) {
        if (line.find("(NEEDED)") == std::string::npos) continue;
        ++needed;
        const std::string name = line.substr(line.find('[') + 1);
        EXPECT_TRUE(std::any_of(known.begin(), known.end(), [&](const auto &one) { return name.rfind(one, 0) == 0; }))
            << line;
    }
    EXPECT_GE(needed, 3);
}

TEST_F(VxFile, TellsPackagersWhatItLoadsLater) {
    const std::string note = readelf("-p.note.dlopen");
    EXPECT_THAT(note, HasSubstr("FDO"));
    EXPECT_THAT(note, HasSubstr(R"("soname":["libzmq.so.5"])"));
}

TEST_F(VxFile, IsSmallAndStartsWithoutConstructorsOfItsOwn) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer registers every global object in a constructor";
#endif
    const auto cost = vxtest::run({source + "/scripts/loading-cost", vxtest::built("tools/vx")});
    EXPECT_THAT(cost.text, HasSubstr("\nconstructors 1\n")) << "the compiler's own alone";
    size_t text = 0;
    size_t data = 0;
    ASSERT_EQ(std::sscanf(cost.text.c_str(), "text %zu data %zu", &text, &data), 2) << cost.text;
    EXPECT_LT(text + data, 400000U);
}

// ---- output

TEST(VxOutput, AFullDiskIsAFailureOfEveryCommandThatPrints) {
    writeFile("/tmp/status/x", "1");
    for (const auto &words : {std::vector<std::string>{"status", "get", "x"},
                              {"-j", "status", "list"},
                              {"help"},
                              {"--version"},
                              {"status", "--help"},
                              {"link"},
                              {"status", "watch", "--count", "1"}}) {
        const auto result = vx(words, {.outputPath = "/dev/full"});
        EXPECT_EQ(result.status, 1) << words[0];
        EXPECT_THAT(result.err, HasSubstr("standard output: No space left on device\n"));
    }
}

TEST(VxOutput, AClosedPipeEndsIt) {
    writeFile("/tmp/status/x", std::string(1000000, 'x'));
    EXPECT_EQ(vxScript("vx status get x | head -c 1; echo ${PIPESTATUS[0]}").out, "x141\n");
    // A service may have been started with the signal ignored.
    const auto result = vxScript("trap '' PIPE; vx status get x | head -c 1; echo ${PIPESTATUS[0]}");
    EXPECT_EQ(result.out, "x1\n");
    EXPECT_EQ(result.err, "vx: status get: standard output: Broken pipe\n");
}

TEST(VxOutput, ClosedStreamsDoNoHarm) {
    writeFile("/tmp/status/x", "1");
    EXPECT_EQ(vxScript("vx status get x >&-; echo $?").out, "1\n");
    EXPECT_EQ(vxScript("vx status get none 2>&-; echo $?").out, "1\n");
    EXPECT_EQ(vxScript("vx status set x 2 <&- >&- 2>&-; echo $?; cat /tmp/status/x").out, "0\n2");
}

TEST(VxOutput, ProgramsFindTheStreamsClosedThatTheToolFoundClosed) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator has descriptors of its own";
    const std::string list =
        "vx run -- sh -c 'for n in 0 1 2; do [ -e /proc/$$/fd/$n ] && >>/tmp/open echo $n; done; exit 0'";
    EXPECT_EQ(vxScript(": >/tmp/open; " + list + " <&- >&- 2>&-").status, 0);
    EXPECT_EQ(vxtest::readFile("/tmp/open"), "");
    EXPECT_EQ(vxScript(": >/tmp/open; " + list + " >&-").status, 0);
    EXPECT_EQ(vxtest::readFile("/tmp/open"), "0\n2\n");
}

// Another process may have made the pipe or terminal non-blocking.
TEST(VxOutput, NonBlockingStreamsAreWaitedFor) {
    const std::string text(300000, 'x');
    writeFile("/tmp/status/x", text);
    int out[2];
    ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
    ::fcntl(out[1], F_SETFL, O_NONBLOCK);
    pid_t pid = vxtest::startChild([&] {
        ::dup2(out[1], 1);
        return vxtest::becomeVx({"status", "get", "x"});
    });
    ::close(out[1]);
    std::string got;
    char piece[4096];
    for (ssize_t length; (length = ::read(out[0], piece, sizeof piece)) > 0;)
        got.append(piece, static_cast<size_t>(length));
    ::close(out[0]);
    EXPECT_EQ(vxtest::waitChild(pid), 0);
    EXPECT_EQ(got.size(), text.size() + 1);

    int in[2];
    ASSERT_EQ(::pipe2(in, O_CLOEXEC), 0);
    ::fcntl(in[0], F_SETFL, O_NONBLOCK);
    for (const auto &words : {std::vector<std::string>{"status", "set", "y", "--stdin"}, {"digest", "md5"}}) {
        pid = vxtest::startChild([&] {
            ::dup2(in[0], 0);
            ::close(in[1]);
            ::alarm(1);  // ends the wait
            return vxtest::becomeVx(words);
        });
        EXPECT_EQ(vxtest::waitChild(pid), 128 + SIGALRM) << words[0];
    }
    ::close(in[0]);
    ::close(in[1]);
}

// Each line is a command that prints something.
constexpr const char *printingCommands = R"(config get wan.sms
config --file /tmp/x.conf get a
config --file /tmp/x.conf list
sysinfo
status list
status get x
status watch --count 1
log show
io list
io get 1
io watch --count 1
io count
adc
board
storage
modem signal
modem state
ping -c 1 127.0.0.1
route 127.0.0.1
link
addr 10.0.0.1
proc count bash
digest md5 /tmp/x.conf
reboot --status
poweroff --status
doctor
help
)";

// Those that only act print with --json.
constexpr const char *actingCommands = R"(config set a=b
config commit
status set x y
event raise 1 2
log add 1 x
io set 1=0
sms send 1 x
sms list
run --detach -- true
proc alive 1
)";

TEST(VxOutput, EveryCommandFailsOnAFullDiskAndEndsWithItsPipe) {
    if (vxtest::emulated()) GTEST_SKIP() << "the gateway's peers are started by a shell, natively";
    writeFile("/tmp/x.conf", "a=b\n");
    const auto result = inGateway(
        "vx status set x 1; vx log add 1 x\n"
        // Descriptor 6 is a pipe without a reader.
        "mkfifo /tmp/pipe; exec 5<>/tmp/pipe 6>/tmp/pipe 5<&-\n"
        "try() {\n"
        "  [[ $(vx \"$@\" 2>&1 >/dev/full; echo $?) = *': standard output: No space left on device'$'\\n'1 ]] || "
        "echo \"full: $*\"\n"
        // Those that follow something end when no process reads them any more, ping without a reply.
        "  case \"$*\" in *watch*) status=0 ;; *ping*) status=1 ;; *) status=141 ;; esac\n"
        "  vx -q \"$@\" >&6; [ $? = $status ] || echo \"pipe: $*\"\n"
        "}\n"
        "while read -r line; do try $line; try -j $line; done <<'END'\n" +
        std::string(printingCommands) + "END\nwhile read -r line; do try -j $line; done <<'END'\n" + actingCommands +
        "END\n");
    EXPECT_EQ(result.out, "");
}

// Runs vx on a terminal of its own and returns what appears there.
std::string onTerminal(const std::vector<std::string> &words, const char *locale) {
    int terminal = -1;
    const auto command = vxtest::vxCommand(words);
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) {
        ::setenv("LC_ALL", locale, 1);
        std::vector<char *> argv;
        for (const std::string &word : command) argv.push_back(const_cast<char *>(word.c_str()));
        argv.push_back(nullptr);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    std::string text;
    char piece[4096];
    for (ssize_t got; (got = ::read(terminal, piece, sizeof piece)) > 0;) text.append(piece, static_cast<size_t>(got));
    ::close(terminal);
    vxtest::waitChild(pid);
    return text;
}

TEST(VxOutput, NoControlCharacterReachesATerminal) {
    std::string bytes =
        "\x1b]0;title\x07 \x9b"
        "31m \xc2\x9b"
        "32m gr\xc3\xbc\xc3\x9f \r\x7f\b";
    bytes += '\0';
    writeFile("/tmp/status/x", bytes);
    writeFile("/tmp/status/dir/\x1b[2J", "v");
    const std::string shown =
        "\\0033]0;title\\0007 \\023331m \\0302\\023332m gr\xc3\xbc\xc3\x9f \\0015\\0177\\0010\\0000\r\n";
    EXPECT_EQ(onTerminal({"status", "get", "x"}, "C.UTF-8"), shown);
    EXPECT_THAT(onTerminal({"status", "get", "x"}, "C"), HasSubstr("gr\\0303\\0274\\0303\\0237"));
    EXPECT_THAT(onTerminal({"--raw", "status", "get", "x"}, "C.UTF-8"), HasSubstr("\x1b]0;title\x07"));
    EXPECT_EQ(onTerminal({"status", "list", "dir"}, "C.UTF-8"), "dir/\\0033[2J\r\n");
    EXPECT_EQ(onTerminal({"status", "get", "dir/\x1b[2J", "x"}, "C.UTF-8"), "dir/\\0033[2J=v\r\nx=" + shown);
    for (const auto &words : {std::vector<std::string>{"-j", "status", "get", "x"},
                              {"status", "watch", "--count", "2"},
                              {"status", "get", "none\x1b"},
                              {"config", "get", "\x9b"}}) {
        const std::string text = onTerminal(words, "C");
        for (const char c : text) {
            EXPECT_TRUE(c == '\r' || c == '\n' || (c >= ' ' && c < '\x7f')) << static_cast<int>(c) << " in " << text;
        }
    }
}

// ---- completion

std::vector<std::string> candidates(const std::string &lastWords) {
    auto result = vxScript("vx __complete " + lastWords);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    std::vector<std::string> words;
    for (const std::string &line : linesOf(result.out)) words.push_back(line.substr(0, line.find('\t')));
    return words;
}

class VxCompletion : public testing::Test {
protected:
    VxCompletion() {
        fs::remove_all("/tmp/status");
        writeFile("/tmp/status/wan/link", "up");
        writeFile("/tmp/status/wan/two words", "up");
    }
};

TEST_F(VxCompletion, KnowsCommandsOptionsAndLiveValues) {
    EXPECT_THAT(candidates("sta"), ElementsAre("status"));
    EXPECT_THAT(candidates("st"), ElementsAre("status", "storage"));
    EXPECT_THAT(candidates("config ''"), ElementsAre("get", "set", "commit", "list"));
    EXPECT_THAT(candidates("status get --n"), ElementsAre("--nv"));
    EXPECT_THAT(candidates("status get wan/l"), ElementsAre("wan/link"));
    EXPECT_THAT(candidates("status --nv get ''"), ElementsAre());
    EXPECT_THAT(candidates("status list ''"), ElementsAre("wan"));
    EXPECT_THAT(candidates("status set wan/link ''"), ElementsAre());
    EXPECT_THAT(candidates("ping -I l"), ElementsAre("lo"));
    EXPECT_THAT(candidates("link l"), ElementsAre("lo"));
    EXPECT_THAT(candidates("help sy"), ElementsAre("sysinfo"));
    EXPECT_THAT(candidates("doctor pi"), ElementsAre("ping"));
    EXPECT_THAT(candidates("digest md5 x"), ElementsAre(":file"));
    EXPECT_THAT(candidates("digest --key-file ''"), ElementsAre(":file"));
    EXPECT_THAT(candidates("lock name -- l"), ElementsAre(":program"));
    EXPECT_THAT(candidates("lock name -- ls ''"), ElementsAre(":file"));
    writeFile("/tmp/x.conf", "wan.mtu=1\nlan=2\n");
    EXPECT_THAT(candidates("config --file /tmp/x.conf get w"), ElementsAre("wan.mtu"));
    EXPECT_THAT(candidates("config get --file=/tmp/x.conf ''"), ElementsAre("wan.mtu", "lan"));
    EXPECT_THAT(candidates("config get --file=/tmp/none ''"), ElementsAre());
    vxtest::Board board(2, 1);
    EXPECT_THAT(candidates("io get ''"), ElementsAre("din1", "din2", "dout1"));
    EXPECT_THAT(candidates("io set ''"), ElementsAre("dout1=0", "dout1=1"));
    EXPECT_THAT(candidates("io frequency din2"), ElementsAre("din2"));
    EXPECT_THAT(candidates("nosuch ''"), ElementsAre());
    EXPECT_THAT(candidates("config nosuch ''"), ElementsAre());
    EXPECT_FALSE(candidates("").empty());
}

TEST_F(VxCompletion, AFullDiskIsAFailure) {
    EXPECT_EQ(vxScript("vx __complete '' >/dev/full; echo $?").out, "1\n");
    EXPECT_EQ(vxScript("vx __complete '' >&-; echo $?").out, "1\n");
}

// What bash would offer for the last of these words, as it splits them; sorted, as bash shows it.
std::string inBash(const std::string &words, const std::string &current, const std::string &setting = "") {
    const std::string script = setting + "source " + source + "/tools/completion/vx.bash\nCOMP_WORDS=(" + words +
                               "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_vx vx " + current +
                               " x; printf '<%s>\\n' \"${COMPREPLY[@]}\" | LC_ALL=C sort | tr -d '\\n'";
    const auto result = vxScript(script);
    EXPECT_EQ(result.err, "");
    return result.out;
}

TEST_F(VxCompletion, WorksInBash) {
    EXPECT_EQ(inBash("vx sto", "sto"), "<storage>");
    EXPECT_EQ(inBash("vx status get wan/", "wan/"), "<wan/link><wan/two\\ words>");
    EXPECT_EQ(inBash("vx status get 'wan/two\\ w'", "'wan/two w'"), "<wan/two\\ words>");
    EXPECT_EQ(inBash("vx status get none", "none"), "<>");
    const vxtest::Board board(1, 2);
    EXPECT_EQ(inBash("vx io set dout1", "dout1"), "<dout1=0><dout1=1>");
    EXPECT_EQ(inBash("vx io set dout2 =", "=") + inBash("vx io set dout2 = 1", "1"), "<0><1><1>");
    writeFile("/tmp/status/usb:1/a", "");
    writeFile("/tmp/status/usb:1/b:c", "");
    EXPECT_EQ(inBash("vx status get usb :", ":"), "<1/a><1/b:c>");
    EXPECT_EQ(inBash("vx status get usb : 1/b : c", "c"), "<c>");
    EXPECT_EQ(inBash("vx status get usb:1/b", "usb:1/b", "COMP_WORDBREAKS=' ';"), "<usb:1/b:c>") << "not split";
    EXPECT_EQ(inBash("vx io set dout2=", "dout2=", "COMP_WORDBREAKS=' ';"), "<dout2=0><dout2=1>");
    writeFile("/tmp/complete/file one", "");
    EXPECT_EQ(vxScript("cd /tmp/complete; source " + source +
                       "/tools/completion/vx.bash; COMP_WORDS=(vx digest md5 fi); COMP_CWORD=3\n"
                       "_vx vx fi md5; printf '<%s>' \"${COMPREPLY[@]}\"")
                  .out,
              "<file one>");
    EXPECT_EQ(vxScript("source " + source + "/tools/completion/vx.bash; complete -p vx").out, "complete -F _vx vx\n");
}

// A real line editor on a terminal of its own: the line is run as the tab key has left it.
TEST_F(VxCompletion, WorksInZsh) {
    if (vxtest::emulated() || !vxtest::exists("/usr/bin/zsh")) GTEST_SKIP() << "no zsh for this machine";
    writeFile("/tmp/complete.zsh",
              "zmodload zsh/zpty\n"
              "zpty shell 'zsh -f -i'\n"
              "zpty -w shell \"PS1=; fpath=(" +
                  source +
                  "/tools/completion \\$fpath); autoload -U compinit; "
                  "compinit -u -d /tmp/zcompdump; bindkey '^I' complete-word; print -r REA''DY\"\n"
                  "zpty -r shell text '*READY*'\n"
                  "zpty -w -n shell $'vx stat\\tget wan/l\\t; print -r DO\"\"NE\\n'\n"
                  "zpty -r shell text '*DONE*'\nprint -r -- $text\n");
    const auto result = vxScript("PATH=$PATH timeout 60 zsh -f /tmp/complete.zsh");
    EXPECT_THAT(result.out, HasSubstr("\nup\r")) << "the value of wan/link";
}

// ---- manual pages

std::vector<fs::path> pages() {
    std::vector<fs::path> found;
    for (const auto &entry : fs::directory_iterator(source + "/tools/man")) found.push_back(entry.path());
    std::sort(found.begin(), found.end());
    return found;
}

TEST(VxPages, HaveNoFaultThatMandocFinds) {
    if (!vxtest::exists("/usr/bin/mandoc")) GTEST_SKIP() << "no mandoc on this machine";
    for (const fs::path &page : pages()) {
        // Which other pages this machine has is not the page's fault.
        const auto result = vxScript("mandoc -T lint " + page.string() +
                                     " 2>&1 | grep -v -e 'referenced manual not found' -e 'outdated mandoc.db'");
        EXPECT_EQ(result.out, "");
    }
}

TEST(VxPages, AgreeWithTheTableOfCommands) {
    if (!vxtest::exists("/usr/bin/python3")) GTEST_SKIP() << "no python3 on this machine";
    const auto result = vxScript("python3 " + source + "/scripts/vx-pages --check " + vxtest::shellCommand("tools/vx"));
    EXPECT_EQ(result.status, 0) << result.err;
    std::set<std::string> names;
    for (const fs::path &page : pages()) names.insert(page.stem());
    for (const fs::path &page : pages()) {
        std::istringstream text(vxtest::readFile(page));
        for (std::string line; std::getline(text, line);) {
            if (line.rfind(".Xr vx", 0) == 0) EXPECT_TRUE(names.count(wordsOf(line)[1])) << page << ": " << line;
        }
    }
}

struct Example {
    std::string command;
    std::string expected;
};

// The literal blocks of a page's EXAMPLES: commands after "$ ", each followed by what it prints.
std::vector<Example> examplesOf(const fs::path &page) {
    std::vector<Example> examples;
    std::ifstream text(page);
    bool within = false;
    bool literal = false;
    for (std::string line; std::getline(text, line);) {
        if (line.rfind(".Sh ", 0) == 0) within = line == ".Sh EXAMPLES";
        if (line.rfind(".Bd", 0) == 0) literal = within;
        if (line == ".Ed") literal = false;
        if (!literal || line.rfind(".Bd", 0) == 0) continue;
        for (size_t at; (at = line.find("\\e")) != std::string::npos;) line.replace(at, 2, "\\");
        if (line.rfind("$ ", 0) == 0) {
            examples.push_back({line.substr(2), ""});
        } else {
            examples.back().expected += line + "\n";
        }
    }
    return examples;
}

// Whether a text is as expected, in which "..." matches any text on one line.
bool fits(const std::string &text, const std::string &expected) {
    const size_t dots = expected.find("...");
    if (dots == std::string::npos) return text == expected;
    if (text.compare(0, dots, expected, 0, dots) != 0) return false;
    for (size_t at = dots; at <= text.size(); ++at) {
        if (fits(text.substr(at), expected.substr(dots + 3))) return true;
        if (at < text.size() && text[at] == '\n') return false;
    }
    return false;
}

// All examples of all pages, one shell after another, in the virtual gateway.
TEST(VxPages, ExamplesDoWhatThePagesSay) {
    if (vxtest::emulated()) GTEST_SKIP() << "the gateway's peers are started by a shell, natively";
    std::string script;
    std::vector<Example> all;
    for (const fs::path &page : pages()) {
        const auto examples = examplesOf(page);
        EXPECT_FALSE(examples.empty()) << page << " has no example";
        for (const Example &example : examples) {
            script += "{ " + example.command + "\n} 2>&1; printf '\\n@%d\\n' $?\n";
            all.push_back({page.filename().string() + ": " + example.command, example.expected});
        }
    }
    const auto result = inGateway(script);
    size_t at = 0;
    for (const Example &example : all) {
        const size_t end = result.out.find("\n@", at);
        ASSERT_NE(end, std::string::npos) << example.command << "\n" << result.err;
        const std::string text = result.out.substr(at, end - at);
        EXPECT_TRUE(fits(text, example.expected)) << example.command << "\nprints\n"
                                                  << text << "and not\n"
                                                  << example.expected;
        at = result.out.find('\n', end + 1) + 1;
    }
}

}  // namespace
