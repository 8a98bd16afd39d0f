// SPDX-License-Identifier: BSD-3-Clause
// Runs one of the project's programs from a test, under the build's emulator (qemu-i386 where the
// kernel cannot run 32-bit programs) when it has one.
#pragma once

#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace tov::test {

// In a forked child: becomes `tool args...`, behind the words of `emulator`; 127 if it cannot.
[[noreturn]] inline void exec_tool(const char *emulator, const char *tool, const std::vector<std::string> &args) {
    std::vector<std::string> words;
    std::istringstream split(emulator);
    for (std::string word; split >> word;) words.push_back(word);
    words.push_back(tool);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

} // namespace tov::test
