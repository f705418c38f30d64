// SPDX-License-Identifier: MIT
// vx digest: message digests of files, written and checked in md5sum's form.
#include <fcntl.h>
#include <unistd.h>
#include <vxutils/digest.h>

#include <array>
#include <memory>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/fd.h"
#include "core/file.h"

namespace tool {

namespace {

enum class Algorithm { md5, sha1, hmacMd5, hmacSha1 };

constexpr size_t longestDigest = 20;
// In hexadecimal digits.
constexpr size_t md5Length = 32;
constexpr size_t sha1Length = 40;

// A digest, keyed or not.
class Digest {
public:
    Digest(Algorithm algorithm, const std::optional<std::string> &key) {
        if (algorithm == Algorithm::md5 || algorithm == Algorithm::hmacMd5) {
            plain_ = std::make_unique<Md5HashContext>();
        } else {
            plain_ = std::make_unique<Sha1HashContext>();
        }
        plain_->initialize(0);
        if (!key) return;
        keyed_ = std::make_unique<HmacContext>(plain_.get());
        keyed_->initialize(reinterpret_cast<const unsigned char *>(key->data()), key->size(), 0);
    }

    void add(const unsigned char *data, size_t length) {
        if (keyed_) {
            keyed_->hash(data, length);
        } else {
            plain_->hash(data, length);
        }
    }

    // In hexadecimal.
    std::string finish() {
        std::array<unsigned char, longestDigest> bytes{};
        const unsigned long length = plain_->getCompleteHashLength();
        if (keyed_) {
            keyed_->getHash(bytes.data());
        } else {
            plain_->getHash(bytes.data());
        }
        constexpr const char *digits = "0123456789abcdef";
        std::string text;
        for (size_t i = 0; i < length; ++i) {
            text += digits[bytes.at(i) >> 4];
            text += digits[bytes.at(i) & 15];
        }
        return text;
    }

private:
    std::unique_ptr<HashContext> plain_;
    std::unique_ptr<AuthenticationContext> keyed_;  // uses the plain one: goes first
};

std::string digestOf(const std::string &name, Algorithm algorithm, const std::optional<std::string> &key) {
    Digest digest(algorithm, key);
    const bool standardInput = name == "-";
    const Fd file(standardInput ? -1 : ::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!standardInput && !file.valid()) throw systemFailure(name);
    std::array<unsigned char, 65536> piece;
    const int fd = standardInput ? STDIN_FILENO : file.get();
    for (;;) {
        const ssize_t got = ::read(fd, piece.data(), piece.size());
        if (got == 0) return digest.finish();
        if (got > 0) digest.add(piece.data(), static_cast<size_t>(got));
        if (got < 0 && !canGoOn(fd, POLLIN)) throw systemFailure(name);
    }
}

// Names with a backslash or a line break are written with "\\", "\n", "\r" and a backslash before the line.
std::string lineOf(const std::string &digest, const std::string &name) {
    std::string shown;
    for (const char c : name) shown += c == '\\' ? "\\\\" : c == '\n' ? "\\n" : c == '\r' ? "\\r" : std::string(1, c);
    return (shown != name ? "\\" : "") + digest + "  " + shown;
}

struct Expected {
    std::string digest;
    std::string name;
};

std::string nameFrom(std::string_view shown) {
    std::string name;
    for (size_t i = 0; i < shown.size(); ++i) {
        const char next = shown[i] == '\\' && i + 1 < shown.size() ? shown[++i] : '\0';
        name += next == 'n' ? '\n' : next == 'r' ? '\r' : next != '\0' ? next : shown[i];
    }
    return name;
}

// Turns "MD5 (name) = digest", which md5sum --tag writes, into "digest  name"; empty for what is not such a line.
std::string fromTagged(std::string_view line, std::string_view tag) {
    constexpr std::string_view middle = ") = ";
    const size_t end = line.rfind(middle);
    if (line.substr(0, tag.size()) != tag || end == std::string_view::npos || end < tag.size()) return {};
    return std::string(line.substr(end + middle.size())) + "  " +
           std::string(line.substr(tag.size(), end - tag.size()));
}

// Nothing for a line that is not a digest of this length and a name.
std::optional<Expected> expectedFrom(std::string_view line, size_t length) {
    const bool escapes = !line.empty() && line[0] == '\\';
    if (escapes) line.remove_prefix(1);
    const std::string turned = fromTagged(line, length == md5Length ? "MD5 (" : "SHA1 (");
    if (!turned.empty()) line = turned;
    const bool complete =
        line.size() > length + 2 && line[length] == ' ' && (line[length + 1] == ' ' || line[length + 1] == '*') &&
        line.find('\0') == std::string_view::npos;  // no file has such a name: another one would be read
    if (!complete || line.substr(0, length).find_first_not_of("0123456789abcdefABCDEF") != std::string_view::npos)
        return std::nullopt;
    std::string digest(line.substr(0, length));
    for (char &c : digest) c = static_cast<char>(c >= 'A' && c <= 'F' ? c + ('a' - 'A') : c);
    const std::string_view name = line.substr(length + 2);
    return Expected{std::move(digest), escapes ? nameFrom(name) : std::string(name)};
}

// Takes the same time wherever they differ.
bool same(std::string_view a, std::string_view b) {
    unsigned int difference = a.size() == b.size() ? 0 : 1;
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

int check(const std::vector<std::string> &lists, Algorithm algorithm, const std::optional<std::string> &key,
          Output &out) {
    const size_t length = algorithm == Algorithm::md5 || algorithm == Algorithm::hmacMd5 ? md5Length : sha1Length;
    std::vector<Record> records;
    int64_t bad = 0;
    for (const std::string &list : lists) {
        const std::string text = list == "-" ? readInput() : readStream(list);
        size_t found = 0;
        size_t misformed = 0;
        for (size_t at = 0; at < text.size();) {
            const size_t end = std::min(text.find('\n', at), text.size());
            const auto expected = expectedFrom(std::string_view(text).substr(at, end - at), length);
            at = end + 1;
            if (!expected) {
                ++misformed;
                continue;
            }
            ++found;
            try {
                const bool matches = same(digestOf(expected->name, algorithm, key), expected->digest);
                records.push_back(
                    {{"file", expected->name}, {"result", matches ? "ok" : "failed"}, {"error", Value()}});
                bad += matches ? 0 : 1;
            } catch (const Failure &failure) {
                records.push_back({{"file", expected->name}, {"result", "unreadable"}, {"error", failure.text}});
                ++bad;
            }
        }
        if (found == 0) throw Failure(list, "holds no digests of this kind");
        if (misformed > 0)
            out.note(list + ": left out " + std::to_string(misformed) + " lines that are not digests of this kind");
    }
    if (out.json()) {
        out.print(records, Plain::row);
    } else {
        for (const Record &record : records) {
            const auto &result = std::get<Text>(record[1].value).text;
            const char *shown = result == "ok" ? "OK" : result == "failed" ? "FAILED" : "FAILED open or read";
            out.print(Record{{"line", std::get<Text>(record[0].value).text + ": " + shown}}, Plain::name);
        }
    }
    if (bad == 0) return statusDone;
    out.flush();
    throw Failure(
        "", std::to_string(bad) + " of " + std::to_string(records.size()) + " files do not match or cannot be read");
}

template <Algorithm algorithm>
int digest(const Arguments &arguments, Output &out) {
    constexpr bool keyed = algorithm == Algorithm::hmacMd5 || algorithm == Algorithm::hmacSha1;
    if (keyed != arguments.has("key-file"))
        throw Usage{keyed ? "--key-file is missing" : "--key-file is for hmac-md5 and hmac-sha1"};
    std::optional<std::string> key;
    if (keyed) key = readStream(arguments.text("key-file"));
    std::vector<std::string> files = arguments.words();
    if (files.empty()) files.emplace_back("-");
    if (arguments.has("check")) return check(files, algorithm, key, out);
    std::vector<Record> records;
    for (const std::string &file : files) {
        const std::string value = digestOf(file, algorithm, key);
        if (out.json()) {
            records.push_back({{"file", file}, {"digest", value}});
        } else {
            out.line(lineOf(value, file));
        }
    }
    if (out.json()) out.print(records, Plain::pair);
    return statusDone;
}

constexpr Option options[] = {
    {0, "key-file", "F", "file whose bytes are the key", fileWords},
    {'c', "check", nullptr, "read digests and names from FILE and check them"},
};
constexpr Argument files[] = {{"FILE", Count::any, fileWords}};

constexpr Verb verbs[] = {
    {"md5", "MD5 of files, or of standard input", {}, files, digest<Algorithm::md5>},
    {"sha1", "SHA-1 of files, or of standard input", {}, files, digest<Algorithm::sha1>},
    {"hmac-md5", "HMAC of files with a key, over MD5", {}, files, digest<Algorithm::hmacMd5>},
    {"hmac-sha1", "HMAC of files with a key, over SHA-1", {}, files, digest<Algorithm::hmacSha1>},
};

}  // namespace

const Command digestCommand{"digest", "message digests of files", options, verbs};

}  // namespace tool
