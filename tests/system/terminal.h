// ipaclctl on a terminal of its own.
#pragma once

#include "program.h"

#include <gtest/gtest.h>

#include <csignal>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

class Terminal {
  public:
    explicit Terminal(const std::vector<std::string> &arguments = {}) {
        winsize size{40, 200, 0, 0};
        pid_ = forkpty(&master_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            setenv("TERM", "vt100", 1);
            setenv("LSAN_OPTIONS", "print_suppressions=0:suppressions=" LEAKS, 1);
            execute(program(TOOL, arguments));
            _exit(127);
        }
    }
    ~Terminal() {
        hang_up();
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    void type(const std::string &keys) {
        ASSERT_EQ(write(master_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    // Reads until a text was shown; what was shown before it is passed over.
    testing::AssertionResult shows(const std::string &text) {
        for (;;) {
            if (const size_t at = shown_.find(text); at != std::string::npos) {
                passed_ = shown_.substr(0, at);
                shown_.erase(0, at + text.size());
                return testing::AssertionSuccess();
            }
            pollfd readable{master_, POLLIN, 0};
            char buffer[4096];
            const ssize_t got =
                poll(&readable, 1, 30000) == 1 ? read(master_, buffer, sizeof buffer) : -1;
            if (got <= 0)
                return testing::AssertionFailure() << "no \"" << text << "\" in: " << shown_;
            shown_.append(buffer, static_cast<size_t>(got));
        }
    }

    // What was passed over by the last `shows`.
    const std::string &passed() const { return passed_; }

    void hang_up() {
        if (master_ >= 0)
            close(master_);
        master_ = -1;
    }

    // The exit status, once it has ended by itself.
    int status() {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

  private:
    int master_ = -1;
    pid_t pid_;
    std::string shown_, passed_;
};
