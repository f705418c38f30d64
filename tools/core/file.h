// SPDX-License-Identifier: MIT
// Files of the status tree and others: read whole, replaced whole.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// Contents of a regular file; waits for nothing. Throws Failure about `name`, also for what is not a regular file.
std::string readFile(const std::string &path, std::string_view name);

// Everything up to the end of standard input.
std::string readInput();

// Everything up to the end of a file of any kind; waits for the writers of a pipe. Throws Failure about the path.
std::string readStream(const std::string &path);

// Replaces or makes a file in one step: readers see the old content or the new one, and a write that fails leaves the
// old one. A file that is there keeps its mode and, where the user may, its owner; a new one gets 0644 less the umask.
// A link is followed. Anything else of that name is refused. With `lasting` the content is on the medium afterwards.
void replaceFile(const std::string &path, std::string_view name, std::string_view bytes, bool lasting);

// The text without the line feed that ends it, if one does.
std::string withoutLineEnd(std::string text);

}  // namespace tool
