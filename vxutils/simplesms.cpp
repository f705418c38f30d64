// SPDX-License-Identifier: MIT
#include <vxutils/simplesms.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/command.h>
#include <vxutils/file.h>

#include <boost/token_functions.hpp>
#include <boost/token_iterator.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/log.h"
#include "vxutils/simplesms_text.h"

namespace {

constexpr const char *spool = "/var/spool/sms/incoming/";
constexpr const char *outgoingTemplate = "/tmp/outgoing-sms.XXXXXX";
constexpr const char *sendCommand = "/usr/local/sbin/send-sms ";
constexpr const char *headerEnd = "\n\n";
constexpr const char *senderWord = "From:";
constexpr const char *receivedWord = "Received:";

// Returns the pieces of a text between the separator's characters, empty ones left out.
std::vector<std::string> split(const std::string &text, const char *separator) {
    const boost::char_separator<char> between(separator);
    auto piece = boost::make_token_iterator<std::string>(text.begin(), text.end(), between);
    const auto end = boost::make_token_iterator<std::string>(text.end(), text.end(), between);
    return {piece, end};
}

std::string joined(const std::vector<std::string> &words, size_t first) {
    std::string text;
    for (size_t i = first; i < words.size(); ++i) text.append(i > first ? " " : "").append(words[i]);
    return text;
}

void takeHeaderLine(const std::string &line, vx::SmsParts &parts) {
    const std::vector<std::string> words = split(line, " ");
    if (!words.empty() && words[0] == senderWord) {
        parts.number = words.size() > 1 ? words[1] : "";
    } else if (!words.empty() && words[0] == receivedWord) {
        parts.received = joined(words, 1);
    } else {
        parts.unrecognized.push_back(line);
    }
}

// An id names a file of the spool and nothing else.
bool validId(const std::string &id) {
    if (id.empty() || id == "." || id == "..") return false;
    return id.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

// A file in /tmp that is removed unless it is kept.
class OutgoingFile {
public:
    OutgoingFile() : path_(outgoingTemplate), fd_(::mkostemp(path_.data(), O_CLOEXEC)), made_(fd_.valid()) {}
    ~OutgoingFile() {
        if (made_) ::unlink(path_.c_str());
    }
    OutgoingFile(const OutgoingFile &) = delete;
    OutgoingFile &operator=(const OutgoingFile &) = delete;

    [[nodiscard]] const std::string &path() const { return path_; }
    void keep() { made_ = false; }

    bool write(const std::string &number, const std::string &text) {
        if (!made_) return false;
        vx::FilePtr file(::fdopen(fd_.get(), "w+"));
        if (!file) return false;
        (void)fd_.release();
        // A child that another thread forks at that moment has a copy of a buffer, and exit() would write it there.
        (void)std::setvbuf(file.get(), nullptr, _IONBF, 0);
        std::fprintf(file.get(), "To: %s\n\n", number.c_str());
        std::fprintf(file.get(), "%s\n", text.c_str());
        const bool complete = std::ferror(file.get()) == 0;
        return std::fclose(file.release()) == 0 && complete;
    }

private:
    std::string path_;
    vx::Fd fd_;
    bool made_;
};

}  // namespace

namespace vx {

bool splitSms(const std::string &file, SmsParts &parts) {
    const size_t end = file.find(headerEnd);
    if (end == std::string::npos) return false;
    for (const std::string &line : split(file.substr(0, end), "\n")) takeHeaderLine(line, parts);
    parts.text = file.substr(end + std::strlen(headerEnd));
    return true;
}

}  // namespace vx

CSimpleSMS::CSimpleSMS() = default;

CSimpleSMS::CSimpleSMS(const std::string &number, const std::string &text) : number_(number), text_(text) {}

int CSimpleSMS::send() {
    if (number_.find_first_of("\r\n") != std::string::npos) return -1;  // it would forge a header line
    OutgoingFile file;
    if (!file.write(number_, text_)) return -1;
    if (run_command((sendCommand + file.path()).c_str(), 0) != 0) return -1;
    file.keep();
    return 0;
}

const std::string &CSimpleSMS::getNumber() const { return number_; }

const std::string &CSimpleSMS::getReceived() const { return received_; }

const std::string &CSimpleSMS::getText() const { return text_; }

void CSimpleSMS::RetrieveIncomingIds(std::vector<std::pair<long long, std::string>> &ids) {
    vx::DirPtr directory(::opendir(spool));
    if (!directory) return;
    while (const dirent *entry = ::readdir(directory.get())) {
        if (entry->d_type != DT_REG) continue;
        const std::string path = std::string(spool) + entry->d_name;
        struct stat status {};
        if (::stat(path.c_str(), &status) == -1) {
            vx::log(LOG_DEBUG, "Unable to stat %s%s - errno=%s", spool, entry->d_name, std::strerror(errno));
            continue;
        }
        ids.emplace_back(status.st_ctime, entry->d_name);
    }
    if (::closedir(directory.release()) == -1) vx::log(LOG_ERR, "Unable to close the directory %s", spool);
}

CSimpleSMS *CSimpleSMS::getIncomingSMSById(const std::string &id) {
    const std::string path = spool + id;
    vx::SmsParts parts;
    const bool valid = validId(id);
    if (!valid) errno = ENOENT;
    if (!valid || !vx::splitSms(readfile(path.c_str()), parts)) {
        vx::log(LOG_DEBUG, "sms: file \"%s\" not existing or invalid, errno=%s", path.c_str(), std::strerror(errno));
        return nullptr;
    }
    auto *sms = new (std::nothrow) CSimpleSMS;
    if (sms == nullptr) {
        vx::log(LOG_ERR, "sms: Unable to allocate sms - out of memory!?");
        return nullptr;
    }
    for (const std::string &line : parts.unrecognized) {
        vx::log(LOG_DEBUG, "sms: Ignoring unrecognized line : \"%s\"", line.c_str());
    }
    sms->number_.swap(parts.number);
    sms->received_.swap(parts.received);
    sms->text_.swap(parts.text);
    return sms;
}

int CSimpleSMS::DeleteIncomingSMSById(const std::string &id) {
    if (!validId(id)) {
        errno = ENOENT;
        return -1;
    }
    return ::unlink((spool + id).c_str());
}
