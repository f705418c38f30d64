// SPDX-License-Identifier: MIT
#include <vxutils/dio.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/dio_status.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#include "vxutils/dio_frequency.h"
#include "vxutils/internal/assertion.h"
#include "vxutils/internal/digits.h"
#include "vxutils/internal/errno_keeper.h"
#include "vxutils/internal/fd.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/retry.h"

namespace {

constexpr const char *source = "vxutils/dio";
constexpr const char *tree = "/sys/devices/vantorix/";
constexpr const char *entryPath = "/sys/devices/vantorix//%s";
constexpr size_t entryPathSize = 4096;

constexpr std::string_view inputPrefix = "din";
constexpr std::string_view outputPrefix = "dout";
constexpr std::string_view valueFile = "/value";
constexpr std::string_view frequencyFile = "/frequency";

constexpr unsigned int firstLine = DIORONUMBER_MIN;
constexpr unsigned int lastLine = DIORONUMBER_MAX;
static_assert(firstLine == DIORWNUMBER_MIN && lastLine == DIORWNUMBER_MAX && lastLine < 100);

std::atomic<unsigned int> inputs{0};
std::atomic<unsigned int> outputs{0};

bool inRange(unsigned int line) {
    if (line >= firstLine && line <= lastLine) return true;
    vx::log(LOG_WARNING, "DIO number out of range (%u > %u)", line, lastLine);
    return false;
}

// Path of one of a line's files. snprintf() takes 1220 instructions on the board to make it, append() takes 160.
class LinePath {
public:
    LinePath() = default;
    LinePath(const LinePath &) = delete;
    LinePath &operator=(const LinePath &) = delete;

    // Returns false and logs when the number is out of range.
    bool set(std::string_view prefix, unsigned int line, std::string_view file) {
        if (!inRange(line)) return false;
        append(tree);
        append(prefix);
        if (line >= 10) *end_++ = static_cast<char>('0' + line / 10);
        *end_++ = static_cast<char>('0' + line % 10);
        append(file);
        *end_ = '\0';
        return true;
    }

    [[nodiscard]] const char *c_str() const { return text_.data(); }

private:
    void append(std::string_view text) {
        std::memcpy(end_, text.data(), text.size());
        end_ += text.size();
    }

    std::array<char, 48> text_;
    char *end_ = text_.data();
};
static_assert(std::string_view(tree).size() + outputPrefix.size() + 2 + frequencyFile.size() < 48);

int nullOutput() {
    errno = EINVAL;
    return DIO_SYSTEM;
}

int openFailure() { return errno == ENOENT ? DIO_MISSING : DIO_SYSTEM; }

// One of a line's files. All failures are logged.
class LineFile {
public:
    LineFile() = default;
    LineFile(const LineFile &) = delete;
    LineFile &operator=(const LineFile &) = delete;

    // Closes the file. A failure is logged and changes neither the caller's result nor errno.
    ~LineFile() {
        const vx::ErrnoKeeper keeper;
        if (fd_.valid() && fd_.close() == -1)
            vx::log(LOG_ERR, "Can't close(%s) - (%s)", path_.c_str(), std::strerror(errno));
    }

    // Returns DIO_OK, DIO_RANGE, DIO_MISSING or DIO_SYSTEM.
    int open(std::string_view prefix, unsigned int line, std::string_view file, int flags) {
        if (!path_.set(prefix, line, file)) return DIO_RANGE;
        fd_ = vx::Fd(vx::retryEintr([&] { return ::open(path_.c_str(), flags | O_CLOEXEC); }));
        if (fd_.valid()) return DIO_OK;
        vx::log(LOG_ERR, "Can't open(%s) - (%s)", path_.c_str(), std::strerror(errno));
        return openFailure();
    }

    int readValue(unsigned char &on) {
        char value = 0;
        errno = 0;
        if (vx::retryEintr([&] { return ::read(fd_.get(), &value, 1); }) != 1) {
            vx::log(LOG_ERR, "Can't read from \"%s\" - (%s)", path_.c_str(), std::strerror(errno));
            return DIO_SYSTEM;
        }
        if (value != '0' && value != '1') {
            vx::log(LOG_ERR, "Lexical error on input from \"%s\"", path_.c_str());
            return DIO_LEXICAL;
        }
        on = value == '1' ? 1 : 0;
        return DIO_OK;
    }

    // Writes a text in one write(). Returns whether all of it was written; errno is 0 after a short write.
    bool write(std::string_view text) {
        errno = 0;
        const ssize_t written = vx::retryEintr([&] { return ::write(fd_.get(), text.data(), text.size()); });
        if (written == static_cast<ssize_t>(text.size())) return true;
        vx::log(LOG_ERR, "Can't write to \"%s\" - (%s)", path_.c_str(), std::strerror(errno));
        return false;
    }

private:
    LinePath path_;
    vx::Fd fd_;
};

// Tells whether a directory entry is a line: the prefix, one or two digits, and a directory that can be read and
// searched.
bool dio_isDioDirent(const dirent *entry, std::string_view prefix) {
    VX_ASSERT(entry != nullptr, "entry != NULL", source);
    const std::string_view name = entry->d_name;
    if (!name.starts_with(prefix)) return false;
    const std::string_view digits = name.substr(prefix.size());
    if (digits.empty() || digits.size() > 2 || !vx::isDigit(digits.front()) || !vx::isDigit(digits.back()))
        return false;

    std::array<char, entryPathSize> path;
    std::snprintf(path.data(), path.size(), entryPath, entry->d_name);  // a name has at most 255 characters
    struct stat status {};
    if (::stat(path.data(), &status) == -1 || !S_ISDIR(status.st_mode)) return false;
    return ::access(path.data(), R_OK | X_OK) == 0;
}

int isInput(const dirent *entry) { return dio_isDioDirent(entry, inputPrefix) ? 1 : 0; }
int isOutput(const dirent *entry) { return dio_isDioDirent(entry, outputPrefix) ? 1 : 0; }

// Counts one kind of line into its counter. Returns false when the tree exists and cannot be read.
// Quirk Q86.
bool countLines(int (*filter)(const dirent *), std::atomic<unsigned int> &counter) {
    const vx::ErrnoKeeper keeper;
    dirent **entries = nullptr;
    const int found = ::scandir(tree, &entries, filter, nullptr);
    if (found == -1 && errno != ENOENT) {
        vx::log(LOG_ERR, "Can't scandir(%s) - (%s)", tree, std::strerror(errno));
        return false;
    }
    counter = found == -1 ? 0 : static_cast<unsigned int>(found);
    for (int i = 0; i < found; ++i) std::free(entries[i]);
    std::free(entries);
    return true;
}

void countAll() {
    if (countLines(isInput, inputs)) (void)countLines(isOutput, outputs);
}

int readValueOf(std::string_view prefix, unsigned int line, unsigned char *on) {
    if (on == nullptr) return nullOutput();
    LineFile file;
    const int opened = file.open(prefix, line, valueFile, O_RDONLY);
    return opened == DIO_OK ? file.readValue(*on) : opened;
}

// Converts a number as a machine with 32-bit longs reads it: a number that is too large becomes the largest, a negative
// one wraps.
uint32_t to32Bits(unsigned long number) {
    constexpr unsigned long largest = std::numeric_limits<uint32_t>::max();
    const bool negative = -number <= largest;
    return static_cast<uint32_t>(negative ? number : std::min(number, largest));
}

int readFrequency(FILE *file, const LinePath &path, dio_frequency_record *record) {
    vx::Frequency read{};
    errno = 0;
    const int items = vx::scanFrequency(file, read);
    if (items == EOF) {
        vx::log(LOG_ERR, "Can't fscanf(%s) - (%s)", path.c_str(), std::strerror(errno));
        return DIO_SYSTEM;
    }
    if (items < 3) {
        vx::log(LOG_ERR, "Lexical error on input from \"%s\"", path.c_str());
        return DIO_LEXICAL;
    }
    if (read.first == 0 && read.second == 0) return DIO_INACTIVE;
    *record = {read.number, read.first, read.second};
    return DIO_OK;
}

// Returns the result of a refused "1" or "0".
int switchFailure(unsigned int on) {
    if (errno == EEXIST && on != 0) return DIO_ACTIVE;
    if (errno == ENOENT && on == 0) return DIO_INACTIVE;
    return DIO_SYSTEM;
}

// Returns the result of a refused probe.
// Quirk Q85.
int probeFailure(unsigned char *active) {
    if (errno == 0) return DIO_SYSTEM;  // a short write
    if (errno != EEXIST) return DIO_INACTIVE;
    *active = 1;
    return DIO_OK;
}

}  // namespace

namespace vx {

int scanFrequency(FILE *file, Frequency &frequency) {
    long long first = 0;
    long long second = 0;
    unsigned long number = 0;
    // NOLINTNEXTLINE(cert-err34-c): a number that does not fit is the nearest one that does, which is wanted here
    const int items = std::fscanf(file, "%lld %lld %lu", &first, &second, &number);
    if (items == 3) frequency = {to32Bits(number), first, second};
    return items;
}

}  // namespace vx

extern "C" {

int dio_count(unsigned int *n) {
    if (n == nullptr) return nullOutput();
    countAll();
    *n = inputs + outputs;
    return DIO_OK;
}

int dio_roCount(unsigned int *n) {
    if (n == nullptr) return nullOutput();
    countAll();
    *n = inputs;
    return DIO_OK;
}

int dio_rwCount(unsigned int *n) {
    if (n == nullptr) return nullOutput();
    countAll();
    *n = outputs;
    return DIO_OK;
}

int dio_roValue(unsigned int dio, unsigned char *on) { return readValueOf(inputPrefix, dio, on); }

int dio_rwValue(int dio, unsigned char *on) { return readValueOf(outputPrefix, static_cast<unsigned int>(dio), on); }

int dio_setValue(int dio, unsigned int value) {
    LineFile file;
    const int opened = file.open(outputPrefix, static_cast<unsigned int>(dio), valueFile, O_WRONLY);
    if (opened != DIO_OK) return opened;
    const auto character = static_cast<char>('0' + value);
    return file.write({&character, 1}) ? DIO_OK : DIO_SYSTEM;
}

int dio_frequency(int dio, dio_frequency_record *record) {
    if (record == nullptr) return nullOutput();
    LinePath path;
    if (!path.set(inputPrefix, static_cast<unsigned int>(dio), frequencyFile)) return DIO_RANGE;
    vx::FilePtr file(std::fopen(path.c_str(), "re"));
    if (!file) {
        vx::log(LOG_ERR, "Can't fopen(%s) - (%s)", path.c_str(), std::strerror(errno));
        return openFailure();
    }
    const int result = readFrequency(file.get(), path, record);
    const vx::ErrnoKeeper keeper;
    if (std::fclose(file.release()) != 0) {
        vx::log(LOG_ERR, "Can't fclose(%s) - (%s)", path.c_str(), std::strerror(errno));
    }
    return result;
}

int dio_frequencyActive(int dio, unsigned char *active) {
    if (active == nullptr) return nullOutput();
    LineFile file;
    const int opened = file.open(inputPrefix, static_cast<unsigned int>(dio), frequencyFile, O_WRONLY);
    if (opened != DIO_OK) return opened;
    if (!file.write("-1")) return probeFailure(active);
    *active = 0;
    return DIO_OK;
}

int dio_setFrequencyActive(int dio, unsigned int on) {
    LineFile file;
    const int opened = file.open(inputPrefix, static_cast<unsigned int>(dio), frequencyFile, O_WRONLY);
    if (opened != DIO_OK) return opened;
    return file.write(on != 0 ? "1" : "0") ? DIO_OK : switchFailure(on);
}

}  // extern "C"
