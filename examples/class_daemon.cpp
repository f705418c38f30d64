// SPDX-License-Identifier: MIT
// A daemon that takes orders from its own network only, and only genuine ones: class_daemon FILE
// The file tells "orders.address" (ADDRESS/BITS) and "orders.key"; what the configuration daemon holds under these keys
// goes first. Each line of the input is one order, "SENDER HMAC TEXT", the HMAC being the first 12 bytes of the text's
// HMAC-SHA1 in hexadecimal.
#include <stdio.h>
#include <string.h>
#include <vxutils/configdaemonclient.h>
#include <vxutils/configreader.h>
#include <vxutils/digest.h>
#include <vxutils/ipaddress.h>
#include <vxutils/vxstring.h>

namespace {

class OrderDaemon {
public:
    OrderDaemon(const IpAddress &interface, const String &key) : interface_(interface), hmac_(&sha1_) {
        hmac_.initialize(bytes(key), static_cast<unsigned long>(key.length()), macLength);
    }

    String handle(String line) {
        line.trim();
        const IpAddress sender(takeWord(line));
        const String mac = takeWord(line);
        String address;
        sender.getIpAddrAsString(address);
        if (sender.isEmpty() || !interface_.contains(sender)) return "refused: sender is not of this network";
        if (!isGenuine(line, mac)) return "refused: forged order from " + address;
        return "accepted from " + address + ": " + line;
    }

private:
    static const unsigned long macLength = 12;

    static const unsigned char *bytes(const String &text) {
        return reinterpret_cast<const unsigned char *>(text.c_str());
    }

    static String takeWord(String &line) {
        const long blank = line.indexOf(' ');
        const String word = blank < 0 ? line : line.substring(0, blank);
        line.deleteRegion(0, word.length() + 1);
        return word;
    }

    bool isGenuine(const String &text, const String &mac) {
        unsigned char expected[macLength];
        hmac_.reset();
        hmac_.hash(bytes(text), static_cast<unsigned long>(text.length()));
        hmac_.getHash(expected);
        String digits("", 2 * macLength);
        for (unsigned char byte : expected) digits.concatf("%02x", byte);
        int difference = digits.length() == mac.length() ? 0 : 1;
        for (long i = 0; i < digits.length(); ++i) difference |= digits[i] ^ mac[i];  // all of them, always
        return difference == 0;
    }

    IpAddress interface_;
    Sha1HashContext sha1_;
    HmacContext hmac_;
};

// The configuration daemon's value, the file's where there is none or no answer.
String setting(const ConfigDaemonClient &daemon, const ConfigReader &file, const String &key) {
    String value;
    if (daemon.getValue(key, value).length() > 0) return value;
    return file.getValue(key, value);
}

}  // namespace

int main(int argc, char **argv) {
    ConfigReader file;
    if (argc != 2 || !file.initialize(argv[1], 16)) {
        fprintf(stderr, "usage: class_daemon FILE\n");
        return 2;
    }
    const ConfigDaemonClient config;
    const IpAddress interface(setting(config, file, "orders.address"));
    if (!interface.isIfaceType()) {
        fprintf(stderr, "class_daemon: orders.address is not the address of an interface\n");
        return 1;
    }
    String network;
    interface.getNetAddressAsString(network);
    printf("network %s/%lu\n", network.c_str(), interface.getNetMaskSize());
    fflush(stdout);

    OrderDaemon daemon(interface, setting(config, file, "orders.key"));
    char line[512];
    while (fgets(line, sizeof line, stdin) != nullptr) {
        puts(daemon.handle(line).c_str());
        fflush(stdout);
    }
    return 0;
}
