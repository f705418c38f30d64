// SPDX-License-Identifier: MIT
// A recording of any content is refused with a line and a column, or reads back as it was written.
#include <stdexcept>
#include <string>

#include "fuzz/stage.h"
#include "gateway/core/mask.h"
#include "gateway/core/recording.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view text = stage::text(data, size);
    std::vector<vxgateway::RecordedLine> lines;
    try {
        lines = vxgateway::readRecording("r", text);
    } catch (const std::runtime_error &problem) {
        stage::check(std::string_view(problem.what()).substr(0, 2) == "r:");
        return 0;
    }
    vxgateway::Mask mask(vxgateway::Mask::defaults());
    for (auto &line : lines) {
        const std::string written = line.text();
        stage::check(vxgateway::readRecordedLine(written, line.number).text() == written);
        mask.apply(line);
        stage::check(vxgateway::readRecordedLine(line.text(), line.number).arguments == line.arguments);
    }
    return 0;
}
