// SPDX-License-Identifier: MIT
#include <vxutils/ipaddress.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <type_traits>

#include "vxutils/internal/digits.h"

// Shipped programs hold objects by value, in records, tables and shared memory: layout and size are fixed.
static_assert(sizeof(IpAddress) == 36 && !std::is_polymorphic_v<IpAddress>);

const uint32_t IpAddress::ipv4McGrpAllRouters;
const uint32_t IpAddress::ipv4McGrpAllHosts;
const uint32_t IpAddress::ipv4McGrpUnspecified;
const uint32_t IpAddress::ipv4Loopback;

namespace {

constexpr uint32_t typeEmpty = 0;
constexpr uint32_t typeV4 = 1;
constexpr uint32_t allOnes = 0xffffffff;
constexpr uint32_t firstNumbered = 0x01000000;  // 0.x.x.x is "this network"
constexpr unsigned int shortestPrefix = 2;
constexpr unsigned int longestPrefix = 30;

constexpr uint32_t octetLimit = 256;
constexpr long octetDigits = 3;
constexpr uint32_t prefixLimit = 33;
constexpr long prefixDigits = 2;
constexpr size_t quadText = sizeof "255.255.255.255";

// Ignores the upper half of a number where `unsigned long` has 64 bits.
uint32_t word(unsigned long value) { return static_cast<uint32_t>(value & allOnes); }

uint32_t leadingOnes(uint32_t mask) { return static_cast<uint32_t>(std::countl_one(mask)); }

// Tells whether all one bits come before all zero bits: the inverted mask is then a power of two less 1.
bool isContiguous(uint32_t mask) { return (~mask & (~mask + 1)) == 0; }

// Reads a text from left to right. It relies on the NUL after the text, which is neither a digit nor a separator.
class Reader {
public:
    explicit Reader(const String &text) : begin_(text.c_str()), at_(begin_), end_(begin_ + text.length()) {}
    Reader(const String &text, long pos) : Reader(text) { at_ += std::clamp(pos, 0L, text.length()); }

    [[nodiscard]] long position() const { return at_ - begin_; }
    [[nodiscard]] bool atEnd() const { return at_ >= end_; }

    bool character(char c) {
        if (atEnd() || *at_ != c) return false;
        ++at_;
        return true;
    }

    // Reads a number below `limit` with at most `mostDigits` digits. A leading 0 is a number by itself.
    bool number(long mostDigits, uint32_t limit, uint32_t &value) {
        if (*at_ == '0') {
            ++at_;
            value = 0;
            return true;
        }
        uint32_t read = 0;
        const char *digit = at_;
        while (vx::isDigit(*digit) && digit < at_ + mostDigits)
            read = read * 10 + static_cast<uint32_t>(*digit++ - '0');
        if (digit == at_ || read >= limit) return false;
        at_ = digit;
        value = read;
        return true;
    }

    bool quad(uint32_t &value) {
        uint32_t octets = 0;
        for (int i = 0; i < 4; ++i) {
            uint32_t octet = 0;
            if (i > 0 && !character('.')) return false;
            if (!number(octetDigits, octetLimit, octet)) return false;
            octets = octets << 8 | octet;
        }
        value = octets;
        return true;
    }

private:
    const char *begin_;
    const char *at_;
    const char *end_;
};

bool readNumber(const String &text, long &pos, unsigned long &value, long mostDigits, uint32_t limit) {
    if (pos < 0 || pos >= text.length()) return false;
    Reader reader(text, pos);
    uint32_t number = 0;
    if (!reader.number(mostDigits, limit, number)) return false;
    pos = reader.position();
    value = number;
    return true;
}

String &writeQuad(String &text, bool isV4, uint32_t value) {
    if (!isV4) return text = String::EMPTY();
    char quad[quadText];
    *vx::writeQuad(quad, value) = '\0';
    return text = quad;
}

}  // namespace

IpAddress::IpAddress() { init(); }

IpAddress::IpAddress(const String &text) : IpAddress() { setIpAddrAsString(text); }

// Quirk Q20.
IpAddress::IpAddress(const String &ip, const String &mask) : IpAddress() {
    if (setIpAddrAsString(ip) != 0 || setNetMaskAsString(mask) != 0) init();
}

IpAddress::IpAddress(unsigned long address, unsigned long mask) : IpAddress() {
    if (setV4NetMaskAsBinaryUInt32(mask) == 0) setV4IpAddrAsBinaryUInt32(address);
}

void IpAddress::init() {
    type_ = typeEmpty;
    std::fill(address_, address_ + 4, 0);
    std::fill(netmask_, netmask_ + 4, allOnes);
}

const IpAddress &IpAddress::EMPTY() {
    static const IpAddress empty;
    return empty;
}

String &IpAddress::getIpAddrAsString(String &text) const { return writeQuad(text, isV4(), v4Address()); }

String &IpAddress::getNetAddressAsString(String &text) const { return writeQuad(text, isV4(), v4Address() & v4Mask()); }

String &IpAddress::getNetMaskAsString(String &text) const { return writeQuad(text, isV4(), v4Mask()); }

unsigned long &IpAddress::getV4IpAddrAsBinaryUInt32(unsigned long &address) const { return address = v4Address(); }

int IpAddress::setV4IpAddrAsBinaryUInt32(unsigned long address) {
    type_ = typeV4;
    address_[0] = word(address);
    return 0;
}

unsigned long &IpAddress::getV4NetAddrAsBinaryUInt32(unsigned long &address) const {
    return address = v4Address() & v4Mask();
}

unsigned long IpAddress::getV4NetAddrAsBinaryUInt32() const { return v4Address() & v4Mask(); }

unsigned long &IpAddress::getV4NetMaskAsBinaryUInt32(unsigned long &mask) const { return mask = v4Mask(); }

int IpAddress::setV4NetMaskAsBinaryUInt32(unsigned long mask) {
    if (!isContiguous(word(mask))) return -1;
    type_ = typeV4;
    netmask_[0] = word(mask);
    return 0;
}

unsigned long &IpAddress::getNetMaskSize(unsigned long &size) const { return size = getNetMaskSize(); }

unsigned long IpAddress::getNetMaskSize() const { return isV4() ? leadingOnes(v4Mask()) : 0; }

int IpAddress::setIpAddrAsString(const String &text) {
    Reader reader(text);
    uint32_t address = 0;
    if (!reader.quad(address)) return -1;
    if (reader.atEnd()) return setV4IpAddrAsBinaryUInt32(address);

    uint32_t size = 0;
    if (!reader.character('/') || !reader.number(prefixDigits, prefixLimit, size) || !reader.atEnd()) return -1;
    setV4IpAddrAsBinaryUInt32(address);
    return setNetMaskSize(size);
}

int IpAddress::setNetMaskAsString(const String &text) {
    Reader reader(text);
    uint32_t mask = 0;
    if (!reader.quad(mask) || !reader.atEnd()) return -1;
    return setV4NetMaskAsBinaryUInt32(mask);
}

bool IpAddress::isMaskValid(unsigned long &size) const { return isV4() && s_isV4MaskValid(v4Mask(), size); }

bool IpAddress::contains(const IpAddress &other) const {
    return isV4() && ((other.v4Address() ^ v4Address()) & v4Mask()) == 0;
}

bool IpAddress::isEmpty() const { return *this == EMPTY(); }

bool IpAddress::isLocalGroup() const { return isV4() && v4Address() >> 8 == ipv4McGrpUnspecified >> 8; }

bool IpAddress::isHostType() const { return isV4ClassABC() && v4Address() >= firstNumbered && v4Mask() == allOnes; }

bool IpAddress::isDefGwType() const { return isV4() && v4Address() == 0 && v4Mask() == 0; }

bool IpAddress::isLimBcType() const { return isV4() && v4Address() == allOnes; }

bool IpAddress::isNetType() const { return isDefGwType() || (isInNumberedNetwork() && (v4Address() & ~v4Mask()) == 0); }

bool IpAddress::isIfaceType() const {
    const uint32_t host = v4Address() & ~v4Mask();
    return isInNumberedNetwork() && host != 0 && host != ~v4Mask();
}

bool IpAddress::isDirBcType() const { return isInNumberedNetwork() && (v4Address() | v4Mask()) == allOnes; }

bool IpAddress::isValidAddress() const {
    return isHostType() || isNetType() || isIfaceType() || isLimBcType() || isDirBcType();
}

// Quirk Q19.
unsigned char *IpAddress::getV6IpAddrAsBinaryString(unsigned char *address) const { return address; }

unsigned char *IpAddress::getV6NetAddrAsBinaryString(unsigned char *address) const { return address; }

unsigned char *IpAddress::getV6NetMaskAsBinaryString(unsigned char *mask) const { return mask; }

int IpAddress::setV6IpAddrAsBinaryString(const unsigned char * /*address*/) { return -1; }

int IpAddress::setV6NetMaskAsBinaryString(const unsigned char * /*mask*/) { return -1; }

bool IpAddress::s_isV6MaskValid(const char * /*mask*/, const unsigned long & /*size*/) { return false; }

bool IpAddress::s_getV4IpAddrTokenOfString(const String &text, long &pos, unsigned long &value) {
    return readNumber(text, pos, value, octetDigits, octetLimit);
}

bool IpAddress::s_getV4NetMaskSizeOfString(const String &text, long &pos, unsigned long &value) {
    return readNumber(text, pos, value, prefixDigits, prefixLimit);
}

bool IpAddress::s_getCharOfString(const String &text, long &pos, char ch) {
    if (pos < 0 || pos >= text.length() || text[pos] != ch) return false;
    ++pos;
    return true;
}

bool IpAddress::s_getEndOfString(const String &text, const long &pos) { return pos >= text.length(); }

bool IpAddress::s_isV4MaskValid(unsigned long mask, unsigned long &size) {
    size = leadingOnes(word(mask));
    return isContiguous(word(mask));
}

// The condition that networks, interfaces and directed broadcasts share: a class A, B or C address outside 0.0.0.0/8, a
// valid mask that leaves bits for hosts, and a network part that is neither all zeros nor all ones.
bool IpAddress::isInNumberedNetwork() const {
    if (!isV4ClassABC() || v4Address() < firstNumbered) return false;
    unsigned long size = 0;
    if (!isMaskValid(size) || size < shortestPrefix || size > longestPrefix) return false;
    const uint32_t network = v4Address() & v4Mask();
    return network != 0 && network != v4Mask();
}

bool operator==(const IpAddress &left, const IpAddress &right) {
    return left.type_ == right.type_ && std::equal(left.address_, left.address_ + 4, right.address_) &&
           std::equal(left.netmask_, left.netmask_ + 4, right.netmask_);
}

bool operator!=(const IpAddress &left, const IpAddress &right) { return !(left == right); }
