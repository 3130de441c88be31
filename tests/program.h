// How a test starts a program of this build: as it is, or through the emulator that CMake was given
// where the build is for another machine.
#pragma once

#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

// The command that starts the program at `path` with these arguments.
inline std::vector<std::string> program(const std::string &path,
                                        const std::vector<std::string> &arguments = {}) {
    std::istringstream words(EMULATOR);
    std::vector<std::string> command;
    for (std::string word; words >> word;)
        command.push_back(word);
    command.push_back(path);
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

// Becomes that command; returns only when it can't be started.
inline void execute(const std::vector<std::string> &command) {
    std::vector<char *> argv;
    for (const auto &word : command)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
}
