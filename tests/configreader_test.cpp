// SPDX-License-Identifier: MIT
// ConfigReader: the file's syntax, the questions, the order of its virtual operations.
#include <unistd.h>
#include <vxutils/configreader.h>
#include <vxutils/hashtable.h>
#include <vxutils/numconv.h>

#include <barrier>
#include <climits>
#include <cstring>
#include <filesystem>
#include <future>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

// The reader's table, which nothing else shows: access rights do not count in an explicit instantiation.
INStringHashTable *tableOf(const ConfigReader &reader);
template <INStringHashTable *ConfigReader::*table>
struct Opened {
    friend INStringHashTable *tableOf(const ConfigReader &reader) { return reader.*table; }
};
template struct Opened<&ConfigReader::table_>;

constexpr const char *path = "/etc/vx/reader.conf";

class ConfigReaderTest : public testing::Test {
protected:
    // What initialize() prints while it reads this text; `read` tells what it returned.
    std::string reading(const std::string &text, unsigned long tableSize = 16) {
        vxtest::writeFile(path, text);
        testing::internal::CaptureStdout();
        read = reader.initialize(path, tableSize);
        return testing::internal::GetCapturedStdout();
    }
    std::string value(const char *key) const { return reader.getValue(key, "(default)").c_str(); }
    // Value of the one key of a file with this line, or "(default)".
    std::string lineGives(const std::string &line, const char *key) {
        EXPECT_EQ(reading(line), "");
        return value(key);
    }

    ~ConfigReaderTest() override { EXPECT_TRUE(log.take().empty()); }  // nothing goes to the system log

    vxtest::SyslogCapture log;
    vxtest::NoLeaks leaks;
    ConfigReader reader;
    bool read = false;
};
using ConfigReaderSyntax = ConfigReaderTest;
using ConfigReaderLookup = ConfigReaderTest;
using ConfigReaderHelpers = ConfigReaderTest;
using ConfigReaderAbi = ConfigReaderTest;

TEST_F(ConfigReaderSyntax, BlanksAroundKeyAndValueAreRemoved) {
    EXPECT_EQ(reading("Name = my value\n"), "");
    EXPECT_TRUE(read);
    EXPECT_EQ(value("Name"), "my value");
    EXPECT_EQ(lineGives("k=\t\x01 v \x1F w \r\n", "k"), "v \x1F w");
    EXPECT_EQ(lineGives("k=v", "k"), "v");
    EXPECT_EQ(lineGives("k=\n", "k"), "");
    EXPECT_EQ(lineGives("k=   \t\n", "k"), "");
    EXPECT_EQ(lineGives("k", "k"), "(default)");
}

TEST_F(ConfigReaderSyntax, BlanksAndControlCharactersVanishFromKeysWhereverTheyStand) {
    EXPECT_EQ(lineGives("a b\tc\x01 d =v\n", "abcd"), "v");
    EXPECT_EQ(lineGives(" abc=v\n", "abc"), "v");
    EXPECT_EQ(lineGives("long.key with.a.blank in.it=v\n", "long.keywith.a.blankin.it"), "v");
    EXPECT_EQ(lineGives("=v\n", ""), "v");
    EXPECT_EQ(lineGives(" =v\n", ""), "v");
    EXPECT_EQ(lineGives("a =v\n", "a"), "v");
}

TEST_F(ConfigReaderSyntax, OfAKeyThatBeginsWithTwoBlanksTheSecondOneStays) {
    EXPECT_EQ(lineGives("  a=v\n", " a"), "v");
    EXPECT_EQ(lineGives(" \ta b=v\n", "\tab"), "v");
    EXPECT_EQ(lineGives("    a=v\n", " a"), "v");
    EXPECT_EQ(lineGives("  =v\n", " "), "v");
    EXPECT_EQ(lineGives("     =v\n", " "), "v");
    EXPECT_EQ(lineGives(" a  =v\n", "a"), "v");
}

// The scan as it is told: remove, and go on at the second character.
std::string scanned(std::string key) {
    for (size_t i = 0; i < key.size();) {
        if (static_cast<unsigned char>(key[i]) <= 32) {
            key.erase(i, 1);
            i = 1;
        } else {
            ++i;
        }
    }
    return key;
}

TEST_F(ConfigReaderSyntax, KeysOfEveryShapeAgreeWithTheScan) {
    const std::string letters = "ax \t\x80";
    for (size_t length = 1; length <= 6; ++length) {
        size_t shapes = 1;
        for (size_t i = 0; i < length; ++i) shapes *= letters.size();
        std::string text;
        std::vector<std::string> keys;
        for (size_t shape = 0; shape < shapes; shape += length < 6 ? 1 : 7) {
            std::string key;
            for (size_t i = 0, rest = shape; i < length; ++i, rest /= letters.size())
                key += letters[rest % letters.size()];
            keys.push_back(key);
        }
        for (const std::string &key : keys) {
            ASSERT_EQ(lineGives(key + "=v\n", scanned(key).c_str()), "v") << testing::PrintToString(key);
            ASSERT_EQ(lineGives(key + "12345678=v\n", scanned(key + "12345678").c_str()), "v");
        }
        if (keys.size() > 3000) break;
    }
}

TEST_F(ConfigReaderSyntax, BytesAbove127AreOrdinary) {
    EXPECT_EQ(lineGives("k\xC3\xA4=\xA0v\xA0\n", "k\xC3\xA4"), "\xA0v\xA0");
}

TEST_F(ConfigReaderSyntax, CommentsBeginInTheFirstColumn) {
    EXPECT_EQ(lineGives("#k=v\n", "k"), "(default)");
    EXPECT_EQ(value("#k"), "(default)");
    EXPECT_EQ(lineGives(" #k=v\n", "#k"), "v");
}

TEST_F(ConfigReaderSyntax, OnlyTheFirstEqualsSignDivides) { EXPECT_EQ(lineGives("k==v = w\n", "k"), "=v = w"); }

TEST_F(ConfigReaderSyntax, TheFirstOfSeveralEntriesCountsAndEachLaterOneIsNamed) {
    EXPECT_EQ(reading("k = 1\nl=x\nk= second one \n k=3"),
              "cfg: Ignoring duplicate tag:k=second one\ncfg: Ignoring duplicate tag:k=3\n");
    EXPECT_TRUE(read);
    EXPECT_EQ(value("k"), "1");
    EXPECT_EQ(value("l"), "x");
}

TEST_F(ConfigReaderSyntax, LinesHave1022BytesAndTheRestIsALineOfItsOwn) {
    const std::string full = "a=" + std::string(1020, 'v');
    EXPECT_EQ(reading(full + "\nb=1\n"), "");
    EXPECT_EQ(value("a"), full.substr(2));
    EXPECT_EQ(value("b"), "1");
    EXPECT_EQ(reading(full + "c=2\n"), "");
    EXPECT_EQ(value("a"), full.substr(2));
    EXPECT_EQ(value("c"), "2");
    EXPECT_EQ(reading("#" + std::string(1021, '-') + "d=3"), "");
    EXPECT_EQ(value("d"), "3");
}

TEST_F(ConfigReaderSyntax, ANulEndsALineEarly) {
    EXPECT_EQ(lineGives(std::string("k=v \0w\n", 7), "k"), "v");
    EXPECT_EQ(lineGives(std::string("k\0=v\n", 5), "k"), "(default)");
    EXPECT_EQ(reading(std::string("a=1\0b=2\nc=3\n", 12)), "");
    EXPECT_EQ(value("c"), "3");
}

TEST_F(ConfigReaderSyntax, ALargeFileIsReadWholeWhateverTheTableSize) {
    std::string text;
    for (int i = 0; i < 3000; ++i)
        text += "key." + std::to_string(i) + " = " + std::string(static_cast<size_t>(i % 300), 'v') + "\n";
    for (const unsigned long size : {0UL, 1UL, 64UL, 4096UL}) {
        EXPECT_EQ(reading(text, size), "");
        for (int i = 0; i < 3000; ++i) {
            ASSERT_EQ(value(("key." + std::to_string(i)).c_str()), std::string(static_cast<size_t>(i % 300), 'v'));
        }
    }
}

TEST_F(ConfigReaderTest, AMissingFileIsToldOnStandardOutputAndLeavesTheReaderEmpty) {
    reading("k=v\n");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(reader.initialize("/no/such.conf", 16));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "cfg: Error in config file /no/such.conf, line 0:\ncfg:   \n");
    EXPECT_EQ(value("k"), "(default)");
    EXPECT_TRUE(reader.add("k", "added"));  // the empty table stays
    EXPECT_EQ(value("k"), "added");
}

TEST_F(ConfigReaderTest, AReadErrorIsLikeTheEndOfTheFile) {
    std::filesystem::create_directories("/etc/vx");
    EXPECT_TRUE(reader.initialize("/etc/vx", 16));
    EXPECT_EQ(value("k"), "(default)");
}

TEST_F(ConfigReaderTest, InitializingAgainForgetsWhatWasRead) {
    reading("a=1\n");
    reading("b=2\n");
    EXPECT_EQ(value("a"), "(default)");
    EXPECT_EQ(value("b"), "2");
    reader.cleanup();
    EXPECT_EQ(value("b"), "(default)");
    reader.cleanup();
}

TEST_F(ConfigReaderTest, BeforeInitializationEveryQuestionGivesItsDefault) {
    const String text("d");
    EXPECT_EQ(&reader.getValue("k", text), &text);
    EXPECT_EQ(reader.getValueAsInt("k", 7), 7);
    EXPECT_EQ(&reader.getIndexedValue("k%lu", 1, text), &text);
    EXPECT_EQ(reader.getIndexedValueAsInt("k%lu", 1, 7), 7);
    EXPECT_FALSE(reader.add("k", "v"));
}

TEST_F(ConfigReaderTest, ATableThatCannotBeHadThrowsAndLeavesTheReaderEmpty) {
    vxtest::writeFile(path, "a=1\n");
    EXPECT_THROW(reader.initialize(path, 0x80000000UL), std::bad_array_new_length);
    EXPECT_EQ(value("a"), "(default)");
}

TEST_F(ConfigReaderLookup, ADefaultIsReturnedItself) {
    reading("k=v\n");
    const String text("d");
    EXPECT_EQ(&reader.getValue("none", text), &text);
    EXPECT_EQ(&reader.getIndexedValue("k%lu", 1, text), &text);
    EXPECT_NE(&reader.getValue("k", text), &text);
    EXPECT_EQ(&reader.getValue("k", text), &reader.getValue("k", text));
    EXPECT_EQ(value("K"), "(default)");
}

TEST_F(ConfigReaderLookup, OnAndOffAreNumbersInAnyCase) {
    reading("a=ON\nb=Off\nc=12\nd=x\ne=on\nf=oFF\ng=onn\nh=-5\ni=\nj=1010b\nk=0ffh\n");
    EXPECT_EQ(reader.getValueAsInt("a", 9), 1);
    EXPECT_EQ(reader.getValueAsInt("b", 9), 0);
    EXPECT_EQ(reader.getValueAsInt("c", 9), 12);
    EXPECT_EQ(reader.getValueAsInt("d", 9), valueOf32("x"));
    EXPECT_EQ(reader.getValueAsInt("e", 9), 1);
    EXPECT_EQ(reader.getValueAsInt("f", 9), 0);
    EXPECT_EQ(reader.getValueAsInt("g", 9), valueOf32("onn"));
    EXPECT_EQ(reader.getValueAsInt("h", 9), -5);
    EXPECT_EQ(reader.getValueAsInt("i", 9), 0);
    EXPECT_EQ(reader.getValueAsInt("j", 9), 10);
    EXPECT_EQ(reader.getValueAsInt("k", 9), 255);
    EXPECT_EQ(reader.getValueAsInt("none", 9), 9);
    EXPECT_EQ(reader.getValueAsInt("none", LONG_MIN), LONG_MIN);
}

TEST_F(ConfigReaderLookup, IndexedKeysComeFromTheirPattern) {
    reading("led.0.color=red\nled.17.color=green\nport4294967295=max\nn.1=12\nn.2=on\nn.3=OFF\nn.4=0\nn.5=text\n");
    EXPECT_STREQ(reader.getIndexedValue("led.%lu.color", 0, "none").c_str(), "red");
    EXPECT_STREQ(reader.getIndexedValue("led.%lu.color", 17, "none").c_str(), "green");
    EXPECT_STREQ(reader.getIndexedValue("led.%lu.color", 1, "none").c_str(), "none");
    EXPECT_STREQ(reader.getIndexedValue("port%lu", 4294967295UL, "none").c_str(), "max");
    EXPECT_EQ(reader.getIndexedValueAsInt("n.%lu", 1, 9), 12);
    EXPECT_EQ(reader.getIndexedValueAsInt("n.%lu", 2, 9), 1);
    EXPECT_EQ(reader.getIndexedValueAsInt("n.%lu", 3, 9), 0);
    EXPECT_EQ(reader.getIndexedValueAsInt("n.%lu", 4, 9), 0);
    EXPECT_EQ(reader.getIndexedValueAsInt("n.%lu", 5, 9), valueOf32("text"));
    EXPECT_EQ(reader.getIndexedValueAsInt("n.%lu", 6, 9), 9);
}

TEST_F(ConfigReaderLookup, ValuesOutliveTheReaderInCopies) {
    reading("k=kept\n");
    const String copy(reader.getValue("k", ""));
    reader.cleanup();
    EXPECT_STREQ(copy.c_str(), "kept");
}

TEST_F(ConfigReaderLookup, SeveralThreadsMayAskAtOnce) {
    std::string text;
    for (int i = 0; i < 200; ++i) text += "k" + std::to_string(i) + "=value " + std::to_string(i) + "\n";
    reading(text);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this] {
            const String none(std::string("none").c_str(), 8);  // of this thread
            for (int i = 0; i < 200; ++i) {
                const std::string number = std::to_string(i);
                EXPECT_EQ(reader.getValue(("k" + number).c_str(), none).c_str(), "value " + number);
                EXPECT_EQ(reader.getValueAsInt(("k" + number).c_str(), 0), valueOf32(("value " + number).c_str()));
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
}

TEST_F(ConfigReaderLookup, SeveralThreadsMayCopyTheSameValue) {
    reading("k=a value\nempty=\n");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this] {
            const String none("none");
            const String key("k");
            const String empty("empty");
            std::vector<String> copies;
            for (int i = 0; i < 2000; ++i) {
                copies.push_back(reader.getValue(key, none));
                copies.push_back(reader.getIndexedValue("k%.0lu", 0, none));
                copies.push_back(reader.getValue(empty, none));
                if (i % 16 == 0) copies.clear();
            }
            for (size_t i = 0; i < copies.size(); i += 3) {
                EXPECT_STREQ(copies[i].c_str(), "a value");
                EXPECT_STREQ(copies[i + 2].c_str(), "");
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(value("k"), "a value");
}

TEST_F(ConfigReaderLookup, EachThreadGetsAStringOfItsOwn) {
    reading("k=v\nempty=\n");
    const String added("w");
    EXPECT_TRUE(reader.add("added", added));
    const String none("none");
    const auto texts = [&] {
        return std::vector<const char *>{reader.getValue("k", none).c_str(), reader.getValue("empty", none).c_str(),
                                         reader.getValue("added", none).c_str()};
    };
    const auto here = texts();
    EXPECT_EQ(texts(), here);
    EXPECT_NE(here[2], added.c_str());
    std::vector<const char *> there;
    std::thread([&] { there = texts(); }).join();
    for (size_t i = 0; i < here.size(); ++i) {
        EXPECT_NE(there[i], here[i]) << i;
        EXPECT_STREQ(there[i], here[i]);
    }
    EXPECT_NE(here[1], String().c_str());
}

TEST_F(ConfigReaderLookup, CopiesOfOtherThreadsOutliveTheReader) {
    reading("k=kept\nother=too\n");
    std::promise<void> copied;
    std::promise<void> changed;
    std::thread thread([&] {
        const String none("none");
        std::vector<String> copies(100, reader.getValue("k", none));
        copied.set_value();
        while (copies.size() > 1) copies.pop_back();  // while the reader gives up its own
        changed.get_future().wait();
        EXPECT_STREQ(reader.getValue("k", none).c_str(), "new");
        EXPECT_STREQ(copies[0].c_str(), "kept");
    });
    copied.get_future().wait();
    EXPECT_EQ(value("other"), "too");
    reader.cleanup();
    reading("k=new\n");
    changed.set_value();
    thread.join();
    EXPECT_EQ(value("k"), "new");
}

// Otherwise a daemon with a thread for each connection would collect Strings.
TEST_F(ConfigReaderLookup, AThreadTakesOverTheStringsOfOneThatHasEnded) {
    reading("k=v\n");
    const char *first = nullptr;
    for (int i = 0; i < 50; ++i) {
        const char *text = nullptr;
        std::thread([&] { text = reader.getValue("k", "none").c_str(); }).join();
        if (first == nullptr) first = text;
        EXPECT_EQ(text, first);
    }
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // whose allocators may stay locked in a child
// While a reader goes, it gives up the Strings of another thread, which needs the lock of the thread numbers each time.
TEST_F(ConfigReaderLookup, AChildOfForkMayAskWhateverTheOtherThreadsWereDoing) {
    constexpr int keys = 5000;
    std::string text;
    for (int i = 0; i < keys; ++i) text += "k" + std::to_string(i) + "=v\n";
    reading(text, keys);
    constexpr int rounds = 40;
    const ConfigReader *asked = nullptr;
    std::barrier<> step(2);
    std::barrier<> going(2);
    std::thread asking([&] {
        const String none("none");
        for (step.arrive_and_wait(); asked != nullptr; step.arrive_and_wait()) {
            for (int i = 0; i < keys; ++i) (void)asked->getValue(("k" + std::to_string(i)).c_str(), none);
            step.arrive_and_wait();
        }
    });
    std::thread owner([&] {
        for (int i = 0; i < rounds; ++i) {
            ConfigReader other;
            other.initialize(path, keys);
            asked = &other;
            step.arrive_and_wait();
            step.arrive_and_wait();
            going.arrive_and_wait();
        }
        asked = nullptr;
        step.arrive_and_wait();
    });
    int result = 0;
    std::thread forking([&] {  // has no number before its child asks
        for (int i = 0; i < rounds; ++i) {
            going.arrive_and_wait();
            if (result != 0) continue;
            result = vxtest::inChild([this] {
                ::alarm(20);
                return value("k1") == "v" ? 0 : 1;
            });
        }
    });
    for (std::thread *thread : {&forking, &owner, &asking}) thread->join();
    EXPECT_EQ(result, 0);
}
#endif

TEST_F(ConfigReaderLookup, KeysOfAFileCannotBeMadeToShareABucket) {
    constexpr unsigned long count = 16384;
    std::string text;
    std::vector<std::string> keys;
    for (unsigned long i = 0; i < count; ++i) {
        const std::string half = std::to_string(10000000 + i);
        keys.push_back(half + half);  // each of them has the public hash 0
        text += keys.back() + "=" + half + "\n";
    }
    INStringHashTable ordinary(16);
    for (unsigned long i = 0; i < 100; ++i) ordinary.addEntry(keys[i].c_str(), nullptr);
    ASSERT_EQ(ordinary.getLongestChain(), 100U);

    EXPECT_EQ(reading(text, count), "");
    EXPECT_EQ(tableOf(reader)->getNumberOfKeys(), count);
    EXPECT_LT(tableOf(reader)->getLongestChain(), 32U);
    for (unsigned long i = 0; i < count; i += 97) EXPECT_EQ(value(keys[i].c_str()), std::to_string(10000000 + i));
}

TEST_F(ConfigReaderTest, AddKeepsTheFirstValueAndPrintsTheDuplicate) {
    reading("k=file\n");
    EXPECT_TRUE(reader.add("new", "1"));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(reader.add("new", "2"));
    EXPECT_FALSE(reader.add("k", ""));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "cfg: Ignoring duplicate tag:new=2\ncfg: Ignoring duplicate tag:k=\n");
    EXPECT_EQ(value("new"), "1");
    EXPECT_TRUE(reader.add(" odd key ", "  not stripped  "));
    EXPECT_EQ(value(" odd key "), "  not stripped  ");
    String binary("a");
    binary.concat("\0b", 2);
    EXPECT_TRUE(reader.add("binary", binary));
    EXPECT_TRUE(reader.getValue("binary", "").equals(binary)) << "a copy of the whole value";
}

TEST_F(ConfigReaderHelpers, StrcpystripCopiesAPartWithoutItsBlanks) {
    char dst[8];
    const auto strip = [&](const char *text, int n, int size = sizeof dst) {
        std::strcpy(dst, "before");
        std::string copy(text);
        return reader.strcpystrip(dst, size, copy.data(), n) ? std::string(dst) : "(false)" + std::string(dst);
    };
    EXPECT_EQ(strip("  abc", 3), "abc");
    EXPECT_EQ(strip("  abc", 2), "ab");
    EXPECT_EQ(strip("  abc", 4), "(false)before");
    EXPECT_EQ(strip("a b  c", 5), "a b");
    EXPECT_EQ(strip("a    ", 5), "a");
    EXPECT_EQ(strip("     ", 0), "");
    EXPECT_EQ(strip("     ", 1), "(false)before");
    EXPECT_EQ(strip("\ta", 2), "\ta");  // a tab is not a blank
    EXPECT_EQ(strip("a\t", 2), "a\t");
    EXPECT_EQ(strip("abcdefg", 7), "abcdefg");
    EXPECT_EQ(strip("abcdefgh", 8), "(false)before");
    EXPECT_EQ(strip("abc", 3, 3), "(false)before");
    EXPECT_EQ(strip("abc", 3, 4), "abc");
    EXPECT_EQ(strip("abc", -1), "(false)before");
    EXPECT_EQ(strip("", 0, 0), "(false)before");
    char text[] = "x";
    EXPECT_FALSE(reader.strcpystrip(nullptr, 8, text, 1));
    EXPECT_FALSE(reader.strcpystrip(dst, 8, nullptr, 0));
}

TEST_F(ConfigReaderHelpers, IndexofFindsTheFirst) {
    char text[] = "key=v=w";
    EXPECT_EQ(reader.indexof(text, '='), 3);
    EXPECT_EQ(reader.indexof(text, 'k'), 0);
    EXPECT_EQ(reader.indexof(text, '#'), -1);
    EXPECT_EQ(reader.indexof(text, '\0'), -1);
    EXPECT_EQ(reader.indexof(nullptr, 'k'), -1);
}

// A reader whose operations report their names: calling through the slots of a table in order shows their order.
struct Named : ConfigReader {
    mutable std::string called;
    String text;
    ~Named() override { called = "destructor"; }
    bool initialize(String const &, unsigned long) override { return called = "initialize", true; }
    void cleanup() override { called = "cleanup"; }
    String const &getValue(String const &, String const &) const override { return called = "getValue", text; }
    long getValueAsInt(String const &, long) const override { return called = "getValueAsInt", 0; }
    String const &getIndexedValue(String const &, unsigned long, String const &) const override {
        return called = "getIndexedValue", text;
    }
    long getIndexedValueAsInt(String const &, unsigned long, long) const override {
        return called = "getIndexedValueAsInt", 0;
    }
};

TEST_F(ConfigReaderAbi, VirtualOperationsStandInTheirOrder) {
    Named named;
    void **slots = *reinterpret_cast<void ***>(static_cast<ConfigReader *>(&named));
    const String key("k");
    // The destructor has two slots.
    reinterpret_cast<bool (*)(ConfigReader *, const String &, unsigned long)>(slots[2])(&named, key, 1);
    EXPECT_EQ(named.called, "initialize");
    reinterpret_cast<void (*)(ConfigReader *)>(slots[3])(&named);
    EXPECT_EQ(named.called, "cleanup");
    reinterpret_cast<const String &(*)(const ConfigReader *, const String &, const String &)>(slots[4])(&named, key,
                                                                                                        key);
    EXPECT_EQ(named.called, "getValue");
    reinterpret_cast<long (*)(const ConfigReader *, const String &, long)>(slots[5])(&named, key, 1);
    EXPECT_EQ(named.called, "getValueAsInt");
    reinterpret_cast<const String &(*)(const ConfigReader *, const String &, unsigned long, const String &)>(slots[6])(
        &named, key, 1, key);
    EXPECT_EQ(named.called, "getIndexedValue");
    reinterpret_cast<long (*)(const ConfigReader *, const String &, unsigned long, long)>(slots[7])(&named, key, 1, 1);
    EXPECT_EQ(named.called, "getIndexedValueAsInt");
}

TEST_F(ConfigReaderAbi, InitializeCleansUpThroughTheVirtualOperation) {
    struct Counting : ConfigReader {
        int cleanups = 0;
        void cleanup() override {
            ++cleanups;
            ConfigReader::cleanup();
        }
    } counting;
    vxtest::writeFile(path, "k=1\n");
    EXPECT_TRUE(counting.initialize(path, 4));
    EXPECT_TRUE(counting.initialize(path, 4));
    EXPECT_EQ(counting.cleanups, 2);
    EXPECT_STREQ(counting.getValue("k", "").c_str(), "1");
}

}  // namespace
