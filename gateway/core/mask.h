// SPDX-License-Identifier: MIT
// Keeps passwords out of recordings.
#ifndef VXGATEWAY_MASK_H
#define VXGATEWAY_MASK_H

#include <map>
#include <string>
#include <vector>

#include "gateway/core/recording.h"

namespace vxgateway {

// What a masked value becomes. A replayed program gets it as the value.
constexpr const char *masked = "masked";

// Values are masked by their keys: in requests and answers of the configuration daemon, in "KEY=VALUE" wherever it is
// exchanged, in files by their names, and in arguments of programs. A value of 4 bytes or more that was masked once is
// masked wherever it comes again.
class Mask {
public:
    static const std::vector<std::string> &defaults();

    // Patterns as those of file names, for a whole key or a part of it between characters that are not letters or digits.
    explicit Mask(std::vector<std::string> patterns) : patterns_(std::move(patterns)) {}

    const std::vector<std::string> &patterns() const { return patterns_; }
    bool hides(const std::string &key) const;
    void apply(RecordedLine &line);

private:
    bool matches(const std::string &key) const;
    void hideAssignments(std::string &bytes);
    void hideArguments(std::vector<std::string> &words);
    std::string hide(const std::string &value);
    void hideKnown(std::string &bytes) const;

    std::vector<std::string> patterns_;
    std::vector<std::string> known_;            // longest first
    std::map<std::string, std::string> asked_;  // last key asked for, by source and channel
};

}  // namespace vxgateway

#endif
