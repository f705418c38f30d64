// SPDX-License-Identifier: MIT
// Texts of addresses and masks: what is taken prints as itself, what is refused changes nothing.
#include <vxutils/ipaddress.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

void checkAddress(const String &text) {
    const IpAddress before("7.7.7.7/9");
    IpAddress ip(before);
    if (ip.setIpAddrAsString(text) != 0) {
        require(ip == before);
        return;
    }
    String printed;
    ip.getIpAddrAsString(printed);
    if (text.indexOf('/') >= 0) printed.concatf("/%u", static_cast<unsigned int>(ip.getNetMaskSize()));
    require(printed.equals(text));
}

void checkMask(const String &text) {
    const IpAddress before("7.7.7.7/9");
    IpAddress ip(before);
    if (ip.setNetMaskAsString(text) != 0) {
        require(ip == before);
        return;
    }
    String printed;
    require(ip.getNetMaskAsString(printed).equals(text));
    unsigned long size = 0;
    require(ip.isMaskValid(size) && size == ip.getNetMaskSize());
}

void checkTokens(const String &text) {
    unsigned long value = 0;
    long pos = 0;
    if (IpAddress::s_getV4IpAddrTokenOfString(text, pos, value)) require(value < 256 && pos >= 1 && pos <= 3);
    pos = 0;
    if (IpAddress::s_getV4NetMaskSizeOfString(text, pos, value)) require(value < 33 && pos >= 1 && pos <= 2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr size_t kMaxInput = 64;
    String text;
    text.concat(reinterpret_cast<const char *>(data), static_cast<long>(std::min(size, kMaxInput)));
    checkAddress(text);
    checkMask(text);
    checkTokens(text);
    return 0;
}
