// SPDX-License-Identifier: MIT
// ConfigDaemonClient against the virtual gateway's configuration daemon.
#include <syslog.h>
#include <vxutils/configdaemonclient.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/configd.h"
#include "support/files.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

using vxtest::Configd;
using vxtest::LogLine;
using Lines = std::vector<std::string>;
using Log = std::vector<LogLine>;

String text(size_t length, char c) { return String(std::string(length, c).c_str()); }

class ConfigDaemonClientTest : public testing::Test {
protected:
    // The value, or "(unchanged)".
    std::string get(const String &key) {
        String value("(unchanged)");
        EXPECT_EQ(&client->getValue(key, value), &value);
        return value.c_str();
    }

    Configd daemon{{"--store", "/tmp/store", "a=1"}};
    vxtest::SyslogCapture log;
    vxtest::NoLeaks leaks;
    std::unique_ptr<ConfigDaemonClient> client = std::make_unique<ConfigDaemonClient>();
};
using ConfigDaemonClientSet = ConfigDaemonClientTest;
using ConfigDaemonClientGet = ConfigDaemonClientTest;
using ConfigDaemonClientAbi = ConfigDaemonClientTest;

TEST_F(ConfigDaemonClientTest, HoldsOneConnectionAndGivesItBack) {
    const auto sockets = [] {
        size_t count = 0;
        for (const auto &entry : std::filesystem::directory_iterator("/var/run/configd")) {
            count += entry.path().filename().string().rfind("client.", 0) == 0;
        }
        return count;
    };
    EXPECT_EQ(sockets(), 1u);
    get("a");
    EXPECT_EQ(sockets(), 1u);
    client.reset();
    EXPECT_EQ(sockets(), 0u);
}

TEST_F(ConfigDaemonClientSet, SendsOneRequestPerValue) {
    daemon.tell("trace on");
    EXPECT_TRUE(client->setValue("name", "two words"));
    EXPECT_TRUE(client->setValueAsInt("number", -5));
    EXPECT_TRUE(client->setIndexedValue("port.%lu.name", 3, "lan"));
    EXPECT_TRUE(client->setIndexedValueAsInt("port.%lu.speed", 4294967295UL, 100));
    EXPECT_TRUE(client->setValue("empty", ""));
    Lines requests;
    for (const std::string &line : daemon.tell("trace off")) {
        if (line.rfind("request", 0) == 0) requests.push_back(line);
    }
    EXPECT_EQ(requests, (Lines{R"(request "name=two words\n\0")", R"(request "number=-5\n\0")",
                               R"(request "port.3.name=lan\n\0")", R"(request "port.4294967295.speed=100\n\0")",
                               R"(request "empty=\n\0")"}));
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigDaemonClientSet, NumbersArePrintedWhole) {
    for (const long number : {0L, 1L, -1L, LONG_MAX, LONG_MIN}) {
        EXPECT_TRUE(client->setValueAsInt("n", number));
        EXPECT_EQ(daemon.get("n"), std::to_string(number));
    }
}

TEST_F(ConfigDaemonClientSet, ValuesHave1023CharactersAndKeys255) {
    EXPECT_TRUE(client->setValue("v", text(1023, 'v')));
    EXPECT_EQ(daemon.get("v"), std::string(1023, 'v'));
    EXPECT_TRUE(client->setValue(text(255, 'k'), "1"));
    EXPECT_TRUE(client->setValueAsInt(text(255, 'k'), 2));
    EXPECT_EQ(daemon.get(std::string(255, 'k')), "2");
    EXPECT_TRUE(client->setIndexedValue("i%lu", 1, text(1023, 'w')));
    EXPECT_EQ(daemon.requests(), 4);

    EXPECT_FALSE(client->setValue("v", text(1024, 'v')));
    EXPECT_FALSE(client->setValue(text(256, 'k'), "1"));
    EXPECT_FALSE(client->setValueAsInt(text(256, 'k'), 2));
    EXPECT_FALSE(client->setIndexedValue("i%lu", 1, text(1024, 'w')));
    EXPECT_FALSE(client->setIndexedValue(text(256, 'k'), 1, "1"));
    EXPECT_FALSE(client->setIndexedValueAsInt(text(256, 'k'), 1, 1));
    EXPECT_EQ(daemon.requests(), 4);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigDaemonClientSet, APatternMayNotGrowBeyondAKey) {
    const String pattern = text(250, 'k') + "%lu";  // 253 characters
    EXPECT_TRUE(client->setIndexedValue(pattern, 12345, "fits"));
    const String key = text(250, 'k') + "12345";
    EXPECT_EQ(daemon.get(key.c_str()), "fits");
    EXPECT_EQ(daemon.requests(), 1);
    EXPECT_FALSE(client->setIndexedValue(pattern, 123456, "does not"));
    EXPECT_FALSE(client->setIndexedValueAsInt(pattern, 123456, 1));
    String value("(unchanged)");
    long number = 7;
    EXPECT_STREQ(client->getIndexedValue(pattern, 123456, value).c_str(), "(unchanged)");
    EXPECT_EQ(client->getIndexedValueAsInt(pattern, 123456, number), 7);
    EXPECT_FALSE(client->setIndexedValue("%9999lu", 1, "does not"));
    EXPECT_EQ(daemon.requests(), 1);
}

TEST_F(ConfigDaemonClientSet, APatternHas255CharactersHoweverShortTheKeyThatItGives) {
    const String longest = text(252, 'k') + "%lu";
    const String tooLong = text(253, 'k') + "%lu";  // its keys would fit
    long number = 7;
    String value("(unchanged)");
    EXPECT_TRUE(client->setIndexedValue(longest, 1, "one"));
    EXPECT_TRUE(client->setIndexedValueAsInt(longest, 2, 2));
    EXPECT_STREQ(client->getIndexedValue(longest, 1, value).c_str(), "one");
    EXPECT_EQ(client->getIndexedValueAsInt(longest, 2, number), 2);
    EXPECT_EQ(daemon.requests(), 4);
    EXPECT_FALSE(client->setIndexedValue(tooLong, 1, "one"));
    EXPECT_FALSE(client->setIndexedValueAsInt(tooLong, 2, 2));
    EXPECT_STREQ(client->getIndexedValue(tooLong, 1, value).c_str(), "one");
    EXPECT_EQ(client->getIndexedValueAsInt(tooLong, 2, number), 2);
    EXPECT_EQ(daemon.requests(), 4);
}

TEST_F(ConfigDaemonClientSet, AnEmptyKeyIsNotSent) {
    EXPECT_FALSE(client->setValue("", "x"));
    EXPECT_FALSE(client->setIndexedValue("", 1, "x"));
    EXPECT_EQ(daemon.requests(), 0);
}

TEST_F(ConfigDaemonClientSet, AWrongEchoIsAFailure) {
    daemon.tell("wrong");
    EXPECT_FALSE(client->setValue("a", "2"));
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "invalid response from configd"}}));
    daemon.tell("normal");
    EXPECT_TRUE(client->setValue("a", "2"));
}

TEST_F(ConfigDaemonClientGet, AsksTheDaemonEachTime) {
    EXPECT_EQ(get("a"), "1");
    daemon.tell("set a 2");
    EXPECT_EQ(get("a"), "2");
    EXPECT_EQ(get("unknown"), "");
    EXPECT_EQ(daemon.requests(), 3);
}

TEST_F(ConfigDaemonClientGet, NumbersAreWhatAtoiMakesOfThem) {
    for (const auto &[stored, number] :
         std::vector<std::pair<std::string, long>>{{"12", 12}, {"-7", -7}, {" +3x", 3}, {"text", 0}, {"0x10", 0}}) {
        daemon.tell("set n " + stored);
        daemon.tell("set p.3 " + stored);
        long value = 99;
        EXPECT_EQ(client->getValueAsInt("n", value), number);
        EXPECT_EQ(value, number);
        value = 99;
        EXPECT_EQ(client->getIndexedValueAsInt("p.%lu", 3, value), number);
        EXPECT_EQ(value, number);
    }
    long value = 99;
    EXPECT_EQ(client->getValueAsInt("unknown", value), 0);  // the daemon's empty value
}

TEST_F(ConfigDaemonClientGet, NumbersOutOfRangeGiveTheNearestInt) {
    for (const auto &[stored, number] : std::vector<std::pair<std::string, long>>{{"2147483647", INT_MAX},
                                                                                  {"2147483648", INT_MAX},
                                                                                  {"4294967297", INT_MAX},
                                                                                  {"99999999999999999999", INT_MAX},
                                                                                  {"-2147483648", INT_MIN},
                                                                                  {"-2147483649", INT_MIN},
                                                                                  {"-4294967295", INT_MIN},
                                                                                  {"-99999999999999999999", INT_MIN}}) {
        daemon.tell("set n " + stored);
        daemon.tell("set p.3 " + stored);
        long value = 99;
        EXPECT_EQ(client->getValueAsInt("n", value), number) << stored;
        EXPECT_EQ(client->getIndexedValueAsInt("p.%lu", 3, value), number) << stored;
    }
}

TEST_F(ConfigDaemonClientGet, IndexedKeysComeFromTheirPattern) {
    daemon.tell("set led.17.color green");
    String value;
    EXPECT_EQ(&client->getIndexedValue("led.%lu.color", 17, value), &value);
    EXPECT_STREQ(value.c_str(), "green");
}

TEST_F(ConfigDaemonClientGet, WhatCannotBeAskedLeavesTheValue) {
    long number = 7;
    String value("(unchanged)");
    EXPECT_EQ(get(""), "(unchanged)");
    EXPECT_EQ(get(text(256, 'k')), "(unchanged)");
    EXPECT_EQ(client->getValueAsInt("", number), 7);
    EXPECT_EQ(client->getValueAsInt(text(256, 'k'), number), 7);
    EXPECT_STREQ(client->getIndexedValue(text(256, 'k'), 1, value).c_str(), "(unchanged)");
    EXPECT_EQ(client->getIndexedValueAsInt(text(256, 'k'), 1, number), 7);
    EXPECT_EQ(daemon.requests(), 0);
    EXPECT_EQ(get(text(255, 'k')), "");
    EXPECT_EQ(daemon.requests(), 1);
}

TEST_F(ConfigDaemonClientTest, AnAbsentDaemonMakesSettersFalseAndLeavesValues) {
    daemon.die();
    const auto failsEverywhere = [this] {
        EXPECT_FALSE(client->setValue("a", "2"));
        EXPECT_FALSE(client->setValueAsInt("a", 2));
        EXPECT_FALSE(client->setIndexedValue("a%lu", 1, "2"));
        EXPECT_FALSE(client->setIndexedValueAsInt("a%lu", 1, 2));
        EXPECT_EQ(get("a"), "(unchanged)");
        long number = 7;
        EXPECT_EQ(client->getValueAsInt("a", number), 7);
        EXPECT_EQ(client->getIndexedValueAsInt("a%lu", 1, number), 7);
        String value("(unchanged)");
        EXPECT_STREQ(client->getIndexedValue("a%lu", 1, value).c_str(), "(unchanged)");
    };
    failsEverywhere();
    EXPECT_EQ(log.take(), Log(8, {LOG_ERR, "unable to send query to configd"}));
    client.reset();
    std::filesystem::remove_all("/var/run/configd");
    client = std::make_unique<ConfigDaemonClient>();  // no connection at all
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "cannot bind to configd"}}));
    failsEverywhere();
    EXPECT_EQ(log.take(), Log{});
}

struct Named : ConfigDaemonClient {
    mutable std::string called;
    bool setValue(String const &, String const &) const override { return called = "setValue", true; }
    bool setValueAsInt(String const &, long) const override { return called = "setValueAsInt", true; }
    bool setIndexedValue(String const &, unsigned long, String const &) const override {
        return called = "setIndexedValue", true;
    }
    bool setIndexedValueAsInt(String const &, unsigned long, long) const override {
        return called = "setIndexedValueAsInt", true;
    }
    String &getValue(String const &, String &value) const override { return called = "getValue", value; }
    long getValueAsInt(String const &, long &) const override { return called = "getValueAsInt", 0; }
    String &getIndexedValue(String const &, unsigned long, String &value) const override {
        return called = "getIndexedValue", value;
    }
    long getIndexedValueAsInt(String const &, unsigned long, long &) const override {
        return called = "getIndexedValueAsInt", 0;
    }
};

TEST_F(ConfigDaemonClientAbi, VirtualOperationsStandInTheirOrder) {
    Named named;
    using Client = const ConfigDaemonClient *;
    void **slots = *reinterpret_cast<void ***>(static_cast<ConfigDaemonClient *>(&named));
    const String key("k");
    String value;
    long number = 0;
    // The destructor has two slots.
    reinterpret_cast<bool (*)(Client, const String &, const String &)>(slots[2])(&named, key, key);
    EXPECT_EQ(named.called, "setValue");
    reinterpret_cast<bool (*)(Client, const String &, long)>(slots[3])(&named, key, 1);
    EXPECT_EQ(named.called, "setValueAsInt");
    reinterpret_cast<bool (*)(Client, const String &, unsigned long, const String &)>(slots[4])(&named, key, 1, key);
    EXPECT_EQ(named.called, "setIndexedValue");
    reinterpret_cast<bool (*)(Client, const String &, unsigned long, long)>(slots[5])(&named, key, 1, 1);
    EXPECT_EQ(named.called, "setIndexedValueAsInt");
    reinterpret_cast<String &(*)(Client, const String &, String &)>(slots[6])(&named, key, value);
    EXPECT_EQ(named.called, "getValue");
    reinterpret_cast<long (*)(Client, const String &, long &)>(slots[7])(&named, key, number);
    EXPECT_EQ(named.called, "getValueAsInt");
    reinterpret_cast<String &(*)(Client, const String &, unsigned long, String &)>(slots[8])(&named, key, 1, value);
    EXPECT_EQ(named.called, "getIndexedValue");
    reinterpret_cast<long (*)(Client, const String &, unsigned long, long &)>(slots[9])(&named, key, 1, number);
    EXPECT_EQ(named.called, "getIndexedValueAsInt");
}

TEST_F(ConfigDaemonClientTest, TheExampleTakesDefaultsFromItsFileAndValuesFromTheDaemon) {
    vxtest::writeFile("/etc/vx/port.conf",
                      "port.count = 2\nport.0.name = wan\nport.1.name = lan\nport.1.enabled = off\n");
    daemon.tell("set port.1.enabled 1");
    const vxtest::Output output = vxtest::run({vxtest::built("examples/port_settings"), "/etc/vx/port.conf"});
    EXPECT_EQ(output.text,
              "port 0 (wan): enabled 1\n"
              "port 1 (lan): enabled 1\n"
              "wrote port.count: yes\n");
    EXPECT_EQ(daemon.get("port.count"), "2");
    EXPECT_EQ(vxtest::run({vxtest::built("examples/port_settings"), "/none"}).status, 1);
}

}  // namespace
