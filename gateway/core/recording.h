// SPDX-License-Identifier: MIT
// Recordings: what a program exchanged with the outside of the library, one plain text file of one line each:
//
//   vxgateway-recording 1
//   SECONDS SOURCE WORD ARGUMENT...
//
// SECONDS since the start with six digits after the point. SOURCE names the process and thread: "1" is the program, "1.2"
// the second thread that it started, "1/2" its second child process. The words and their arguments are in one table, forms
// of the same kind as those of gw. Bytes are between quotes, with \" \\ \n \t and \xHH, so that each line reads back as the
// bytes that it was made of. Lines that begin with # are comments.
#ifndef VXGATEWAY_RECORDING_H
#define VXGATEWAY_RECORDING_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vxgateway {

constexpr std::string_view recordingHeader = "vxgateway-recording 1";

struct RecordedLine {
    size_t number = 0;  // in the file
    long long time_us = 0;
    std::string source;
    std::string word;
    std::vector<std::string> arguments;  // bytes, without quotes and escapes

    // As in the file, without the time and the source.
    std::string what() const;
    std::string text() const;
};

// The kinds of the arguments: "bytes" in quotes, "number", "name" without blanks, "result" ("ok" or the name of an errno
// value); if the last ends in "*", there may be any number of it.
struct RecordedForm {
    std::string_view word;
    std::vector<std::string_view> arguments;
};

const std::vector<RecordedForm> &recordedForms();

// One line without its newline. Throws std::runtime_error with "COLUMN: MESSAGE".
RecordedLine readRecordedLine(std::string_view text, size_t number);

// Throws std::runtime_error with one "NAME:LINE:COLUMN: MESSAGE" a line for the first errors.
std::vector<RecordedLine> readRecording(const std::string &name, std::string_view text);

std::string quoted(std::string_view bytes);
int errorNumber(std::string_view result);  // 0 for "ok", -1 when it is not the name of one
std::string resultName(int error);

}  // namespace vxgateway

#endif
