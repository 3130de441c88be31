// A broker process on a socket of its own, ended by its id.
#pragma once

#include "exchange.h"
#include "program.h"

#include <csignal>
#include <cstdlib>
#include <sys/stat.h>
#include <sys/wait.h>

class BrokerProcess {
  public:
    BrokerProcess() {
        char name[] = "/tmp/ipacl-bus-XXXXXX";
        directory_ = mkdtemp(name);
        start();
    }
    ~BrokerProcess() {
        end(SIGTERM);
        rmdir(directory_.c_str());
    }
    BrokerProcess(const BrokerProcess &) = delete;
    BrokerProcess &operator=(const BrokerProcess &) = delete;

    void start() {
        pid_ = fork();
        if (pid_ == 0) {
            execute(program(BUSD, {"-s", path()}));
            _exit(127);
        }
        for (int i = 0; i < 500; i++) {
            const int fd = connect_to(path());
            if (fd >= 0) {
                close(fd);
                return;
            }
            usleep(10000);
        }
        throw std::runtime_error("the broker did not start");
    }
    // The exit status.
    int end(int signal) {
        int status = 0;
        if (pid_ > 0) {
            kill(pid_, signal);
            waitpid(pid_, &status, 0);
        }
        pid_ = 0;
        unlink(path().c_str());
        return status;
    }
    // The mode of the socket keeps nobody out any more.
    void open_to_all() const {
        chmod(path().c_str(), 0666);
        chmod(directory_.c_str(), 0755);
    }
    std::string path() const { return directory_ + "/bus.sock"; }
    pid_t pid() const { return pid_; }

  private:
    std::string directory_;
    pid_t pid_ = 0;
};
