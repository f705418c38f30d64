// SPDX-License-Identifier: MIT
// ConfigReader: keys of every shape, long lines and files, hostile keys, threads and fork, virtual operations.
#include <dlfcn.h>
#include <unistd.h>
#include <vxutils/configreader.h>
#include <vxutils/hashtable.h>
#include <vxutils/numconv.h>

#include <atomic>
#include <barrier>
#include <filesystem>
#include <functional>
#include <future>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "support/call_hooks.h"
#include "support/configreader.h"
#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"

VXTEST_THREAD_HOOK(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))

namespace {

using namespace vxtest::configreader;

using ConfigReaderSyntax = ConfigReaderTest;
using ConfigReaderLookup = ConfigReaderTest;
using ConfigReaderAbi = ConfigReaderTest;

// The reader's table, which nothing else shows: access rights do not count in an explicit instantiation.
INStringHashTable *tableOf(const ConfigReader &reader);
template <INStringHashTable *ConfigReader::*table>
struct Opened {
    friend INStringHashTable *tableOf(const ConfigReader &reader) { return reader.*table; }
};
template struct Opened<&ConfigReader::table_>;

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

TEST_F(ConfigReaderTest, AReadErrorIsLikeTheEndOfTheFile) {
    std::filesystem::create_directories("/etc/vx");
    EXPECT_TRUE(reader.initialize("/etc/vx", 16));
    EXPECT_EQ(value("k"), "(default)");
}

TEST_F(ConfigReaderTest, ATableThatCannotBeHadThrowsAndLeavesTheReaderEmpty) {
    vxtest::writeFile(path, "a=1\n");
    EXPECT_THROW(reader.initialize(path, 0x80000000UL), std::bad_array_new_length);
    EXPECT_EQ(value("a"), "(default)");
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

// A String whose text no other one shares is changed in place. So this tells whether the reader has given up its own copy.
bool isLastCopy(String &copy) {
    const char *before = copy.c_str();
    copy = "x";
    return copy.c_str() == before;
}

std::vector<String> copiesFrom(const ConfigReader &reader) {
    std::vector<String> copies;
    for (const char *key : {"one", "two", "three"}) copies.push_back(reader.getValue(key, "none"));
    return copies;
}

int lastCopies(std::vector<String> &copies) {
    int count = 0;
    for (String &copy : copies) count += isLastCopy(copy) ? 1 : 0;
    return count;
}

enum class Waits { yes, no };

class ConfigReaderMemory : public ConfigReaderTest {
protected:
    ConfigReaderMemory() { reading("one=first value\ntwo=second value\nthree=third value\n"); }

    static Waits waitsForANumberBeingTaken(const std::function<void()> &action);
};

TEST_F(ConfigReaderMemory, TheStringsOfTheCallingThreadGoWithTheValues) {
    String copy = reader.getValue("one", "none");
    EXPECT_FALSE(isLastCopy(copy));
    std::vector<String> copies = copiesFrom(reader);
    reader.cleanup();
    EXPECT_EQ(lastCopies(copies), 3);
}

TEST_F(ConfigReaderMemory, TheStringsOfAThreadThatHasEndedGoWithTheValues) {
    std::vector<String> copies;
    std::thread([&] { copies = copiesFrom(reader); }).join();
    reader.cleanup();
    EXPECT_EQ(lastCopies(copies), 3);
}

// Another thread must not touch them: their counts are plain integers, which that thread's copies change.
TEST_F(ConfigReaderMemory, TheStringsOfAnotherThreadStayUntilItAsksAgain) {
    std::promise<void> copied;
    std::promise<void> cleaned;
    std::thread thread([&] {
        String copy = reader.getValue("one", "none");
        std::vector<String> copies{reader.getValue("two", "none"), reader.getValue("three", "none")};
        copied.set_value();
        cleaned.get_future().wait();
        EXPECT_FALSE(isLastCopy(copy));
        ConfigReader other;
        EXPECT_TRUE(other.initialize(path, 4));
        EXPECT_STREQ(other.getValue("two", "none").c_str(), "second value");
        EXPECT_EQ(lastCopies(copies), 2);
    });
    copied.get_future().wait();
    reader.cleanup();
    cleaned.set_value();
    thread.join();
}

TEST_F(ConfigReaderMemory, TheStringsOfAnotherThreadGoWhenItEnds) {
    std::promise<void> copied;
    std::promise<void> cleaned;
    std::vector<String> copies;
    std::thread thread([&] {
        copies = copiesFrom(reader);
        copied.set_value();
        cleaned.get_future().wait();
    });
    copied.get_future().wait();
    reader.cleanup();
    cleaned.set_value();
    thread.join();
    EXPECT_EQ(lastCopies(copies), 3);
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

// Tells whether `action`, in a thread of its own, waits for another one that is just taking a number.
Waits ConfigReaderMemory::waitsForANumberBeingTaken(const std::function<void()> &action) {
    std::atomic<pthread_mutex_t *> held = nullptr;
    std::atomic<bool> waiting = false;
    std::atomic<bool> done = false;
    std::atomic<bool> goOn = false;
    ConfigReader another;
    EXPECT_TRUE(another.initialize(path, 4));
    std::thread taking([&] {
        const vxtest::Hooked hold(vxtest::hooks::pthread_mutex_lock, [&](pthread_mutex_t *mutex) -> std::optional<int> {
            const int result = vxtest::real::pthread_mutex_lock(mutex);
            held = mutex;
            EXPECT_TRUE(vxtest::eventually([&] { return goOn.load(); }));
            return result;
        });
        (void)another.getValue("one", "none");
    });
    EXPECT_TRUE(vxtest::eventually([&] { return held != nullptr; }));
    std::thread acting([&] {
        const vxtest::Hooked watch(vxtest::hooks::pthread_mutex_lock,
                                   [&](const pthread_mutex_t *mutex) -> std::optional<int> {
                                       if (mutex == held) waiting = true;
                                       return std::nullopt;
                                   });
        action();
        done = true;
    });
    EXPECT_TRUE(vxtest::eventually([&] { return waiting || done; }));
    const Waits result = done ? Waits::no : Waits::yes;
    goOn = true;
    taking.join();
    acting.join();
    return result;
}

TEST_F(ConfigReaderMemory, GivingUpAnotherThreadsStringWaitsForAThreadThatIsTakingANumber) {
    (void)reader.getValue("one", "none");
    EXPECT_EQ(waitsForANumberBeingTaken([&] { reader.cleanup(); }), Waits::yes);
}

// The texts that a thread gets from a reader, and what another thread gets while the first one ends.
struct TextsAtTheEnd {
    const ConfigReader &reader;
    const char *before = nullptr;
    const char *atTheEnd = nullptr;
    const char *ofAnother = nullptr;

    void askAtTheEnd() {
        std::promise<void> asked;
        std::promise<void> done;
        std::thread another([&] {
            ofAnother = reader.getValue("one", "none").c_str();
            asked.set_value();
            done.get_future().wait();
        });
        asked.get_future().wait();
        atTheEnd = reader.getValue("one", "none").c_str();
        done.set_value();
        another.join();
    }
};

// While its thread_local objects are destroyed.
TextsAtTheEnd textsAtTheEndOfAThread(const ConfigReader &reader) {
    struct AsksAtTheEnd {
        ~AsksAtTheEnd() { texts->askAtTheEnd(); }
        TextsAtTheEnd *texts = nullptr;
    };
    TextsAtTheEnd texts{reader};
    std::thread([&] {
        thread_local AsksAtTheEnd last;  // made first, so destroyed last
        last.texts = &texts;
        texts.before = reader.getValue("one", "none").c_str();
    }).join();
    return texts;
}

// After that, in the destructor of a key.
TextsAtTheEnd textsAfterTheEndOfAThread(const ConfigReader &reader) {
    TextsAtTheEnd texts{reader};
    pthread_key_t key;
    EXPECT_EQ(::pthread_key_create(&key, [](void *its) { static_cast<TextsAtTheEnd *>(its)->askAtTheEnd(); }), 0);
    std::thread([&] {
        EXPECT_EQ(::pthread_setspecific(key, &texts), 0);
        texts.before = reader.getValue("one", "none").c_str();
    }).join();
    ::pthread_key_delete(key);
    return texts;
}

// Its thread_local objects may hold copies of the reader's Strings.
TEST_F(ConfigReaderMemory, AThreadSharesNoStringUntilItsObjectsAreDestroyed) {
    const TextsAtTheEnd texts = textsAtTheEndOfAThread(reader);
    EXPECT_EQ(texts.atTheEnd, texts.before);
    EXPECT_NE(texts.ofAnother, texts.before);
    EXPECT_STREQ(texts.ofAnother, "first value");
}

TEST_F(ConfigReaderMemory, AThreadThatAsksAfterThatSharesNoStringEither) {
    (void)reader.getValue("one", "none");  // the library's key is made first, so its destructor is called first
    const TextsAtTheEnd texts = textsAfterTheEndOfAThread(reader);
    EXPECT_EQ(texts.ofAnother, texts.before);
    EXPECT_NE(texts.atTheEnd, texts.ofAnother);
    EXPECT_STREQ(texts.atTheEnd, "first value");
}

TEST_F(ConfigReaderMemory, TheStringsOfThreadsThatAskWhileTheyEndAreTakenOver) {
    (void)reader.getValue("one", "none");
    for (const auto texts : {textsAtTheEndOfAThread, textsAfterTheEndOfAThread}) {
        const TextsAtTheEnd first = texts(reader);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(texts(reader).atTheEnd, first.atTheEnd);
    }
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // whose allocators may stay locked in a child
TEST_F(ConfigReaderMemory, AThreadOfAChildTakesOverTheStringsOfTheThreadsThatForkLeftBehind) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator's own locks do not survive fork() in a process with threads";
    const char *ours = reader.getValue("one", "none").c_str();
    const char *theirs = nullptr;
    std::promise<void> asked;
    std::promise<void> forked;
    std::thread thread([&] {
        theirs = reader.getValue("one", "none").c_str();
        asked.set_value();
        forked.get_future().wait();
    });
    asked.get_future().wait();
    EXPECT_EQ(vxtest::inChild([&] {
                  const char *inNewThread = nullptr;
                  std::thread([&] { inNewThread = reader.getValue("one", "none").c_str(); }).join();
                  if (inNewThread != theirs) return 1;
                  return reader.getValue("one", "none").c_str() == ours ? 0 : 2;
              }),
              0);
    forked.set_value();
    thread.join();
}

// As a program does whose plug-in needs the library.
TEST_F(ConfigReaderMemory, AThreadMayEndAfterTheLibraryHasBeenUnloaded) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator has no threads in children of processes with threads";
    Dl_info library{};
    ASSERT_NE(::dladdr(reinterpret_cast<void *>(&valueOf32), &library), 0);
    if (std::string(library.dli_fname).find(".so") == std::string::npos) GTEST_SKIP() << "a static library stays";
    static constexpr const char *plugin = "/tmp/libvxutils-copy.so";
    std::filesystem::copy_file(library.dli_fname, plugin, std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(vxtest::inChild([] {
                  void *const copy = ::dlopen(plugin, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
                  if (copy == nullptr) return 100;
                  using Getter = const String &(*)(const ConfigReader *, const String &, const String &);
                  const auto make = reinterpret_cast<void (*)(void *)>(::dlsym(copy, "_ZN12ConfigReaderC1Ev"));
                  const auto get = reinterpret_cast<Getter>(::dlsym(copy, "_ZNK12ConfigReader8getValueERK6StringS2_"));
                  if (make == nullptr || get == nullptr) return 101;
                  alignas(ConfigReader) char memory[sizeof(ConfigReader)];
                  void *const place = memory;
                  make(place);
                  auto *const itsReader = static_cast<ConfigReader *>(place);
                  itsReader->initialize(path, 4);
                  std::promise<void> asked;
                  std::promise<void> unloaded;
                  std::thread thread([&] {
                      (void)get(itsReader, "one", "none");
                      asked.set_value();
                      unloaded.get_future().wait();
                  });
                  asked.get_future().wait();
                  itsReader->cleanup();
                  ::dlclose(copy);
                  const bool gone = ::dlopen(plugin, RTLD_NOW | RTLD_NOLOAD) == nullptr;
                  unloaded.set_value();
                  thread.join();
                  return gone ? 0 : 1;
              }),
              0);
}

// Otherwise the child could find the numbers half-changed.
TEST_F(ConfigReaderMemory, ForkWaitsForAThreadThatIsTakingANumber) {
    EXPECT_EQ(waitsForANumberBeingTaken(
                  [&] { EXPECT_EQ(vxtest::inChild([&] { return value("one") == "first value" ? 0 : 1; }), 0); }),
              Waits::yes);
}

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
