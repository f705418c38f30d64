// SPDX-License-Identifier: MIT
// Makes and checks the short HMAC-SHA1 that goes with a message: digest_check KEY MESSAGE [HMAC]
#include <stdio.h>
#include <string.h>
#include <vxutils/digest.h>
#include <vxutils/vxstring.h>

namespace {

const unsigned long macLength = 12;

const unsigned char *bytes(const char *text) { return reinterpret_cast<const unsigned char *>(text); }

String makeMac(const char *key, const char *message) {
    Sha1HashContext sha1;
    HmacContext hmac(&sha1);
    unsigned char mac[macLength];
    hmac.initialize(bytes(key), strlen(key), macLength);
    hmac.hash(bytes(message), strlen(message));
    hmac.getHash(mac);

    String text("", 2 * macLength);
    for (unsigned char byte : mac) text.concatf("%02x", byte);
    return text;
}

// Looks at every character whatever the first ones are: the time taken tells nothing.
bool same(const String &left, const String &right) {
    int difference = left.length() == right.length() ? 0 : 1;
    for (long i = 0; i < left.length(); ++i) difference |= left[i] ^ right[i];
    return difference == 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3 || argc > 4) {
        fprintf(stderr, "usage: digest_check KEY MESSAGE [HMAC]\n");
        return 2;
    }
    const String mac = makeMac(argv[1], argv[2]);
    if (argc == 3) {
        puts(mac.c_str());
        return 0;
    }
    if (!same(mac, argv[3])) {
        printf("forged: its HMAC is not %s\n", argv[3]);
        return 1;
    }
    puts("genuine");
    return 0;
}
