// The daemon whose calls are counted and can be made to fail.
#pragma once

#include "daemon.h"
#include "faults.h"

#include <cstdlib>
#include <filesystem>
#include <sys/mman.h>
#include <unistd.h>

// The block shared with the daemon, there before it is started.
class SharedFaults {
  protected:
    SharedFaults() {
        char name[] = "/tmp/ipacl-faults-XXXXXX";
        const int fd = mkstemp(name);
        if (ftruncate(fd, sizeof(faults::Block)) == 0)
            block_ = static_cast<faults::Block *>(
                mmap(nullptr, sizeof(faults::Block), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        close(fd);
        path_ = name;
        setenv("IPACL_FAULTS", name, 1);
    }
    ~SharedFaults() {
        munmap(block_, sizeof(faults::Block));
        unlink(path_.c_str());
    }
    faults::Block *block_ = nullptr;

  private:
    std::string path_;
};

class FaultyDaemon : protected SharedFaults, public System {
  protected:
    FaultyDaemon() : System(FAULTY_DAEMON) {}

    // What the daemon has allocated once it has nothing left to do but to wait.
    int64_t settled_blocks() {
        for (int i = 0; i < 1000; i++, usleep(1000)) {
            const std::string stat = slurp("/proc/" + std::to_string(daemon) + "/stat");
            if (stat.find(") S ") != std::string::npos)
                break;
        }
        return block_->blocks;
    }
    // How many descriptors a process has open.
    static size_t descriptors(pid_t pid) {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }
};
