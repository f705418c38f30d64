// SPDX-License-Identifier: MIT
// A tag and a document from one input; the result must be what a plain search in the document finds.
#include <vxutils/timefmt.h>

#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 8192) return 0;
    const std::string input(reinterpret_cast<const char *>(data), size);
    const size_t split = input.find('\n');
    const std::string tag = std::string(input, 0, split).c_str();
    const std::string document = split == std::string::npos ? "" : std::string(input, split + 1).c_str();

    const char *element = xml_readattr(document.c_str(), tag.c_str());

    const size_t open = document.find("<" + tag + ">");
    const bool searched = !tag.empty() && open != std::string::npos;
    const std::string content = searched ? document.substr(open + tag.size() + 2, 1023) : "";
    const size_t close = content.find("</" + tag + ">");
    const bool expected = searched && close != std::string::npos;
    if (expected != (element != nullptr)) std::abort();
    if (expected && content.substr(0, close) != element) std::abort();
    return 0;
}
