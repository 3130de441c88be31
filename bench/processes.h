// The processes that bus_bench measures, and time by the clock.
#pragma once

#include <libubus.h>

#include <chrono>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

// Seconds that `work` takes.
template <class F>
double seconds(F work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// A process that was started here; ended with the block.
class Process {
  public:
    Process() = default;
    explicit Process(pid_t pid) : pid_(pid) {}
    // Starts a program, its output dropped; `input` is its standard input.
    explicit Process(const std::vector<std::string> &command,
                     const std::string &input = "/dev/null");
    Process(Process &&other) noexcept : pid_(std::exchange(other.pid_, 0)) {}
    Process &operator=(Process &&other) noexcept {
        std::swap(pid_, other.pid_);
        return *this;
    }
    ~Process() { end(); }

    pid_t pid() const { return pid_; }
    void end();
    int wait(); // its exit status, or -1

  private:
    pid_t pid_ = 0;
};

// A folder of its own, removed with the block.
struct Folder {
    Folder();
    ~Folder();
    std::string path;
};

// The programs of this build; they find each other through the environment.
struct Programs {
    std::string busd, daemon, ipaclctl, ready;
};
Programs programs_beside(const char *self);

// A broker and a daemon on a bus of their own.
class System {
  public:
    explicit System(const Programs &programs);
    // Starts the daemon again and returns the seconds until it was ready.
    double restart_daemon();
    pid_t daemon() const { return daemon_.pid(); }

  private:
    Folder folder_;
    Programs programs_;
    Process broker_, daemon_;
};

// Seconds from starting a command until it says that it is ready.
double until_ready(const std::vector<std::string> &command, Process &process);
