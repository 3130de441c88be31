#include "processes.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

[[noreturn]] void give_up(const char *what) {
    fprintf(stderr, "bus_bench: %s\n", what);
    exit(1);
}

[[noreturn]] void become(const std::vector<std::string> &command, const std::string &input) {
    std::vector<char *> argv;
    for (const auto &word : command)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    dup2(open(input.c_str(), O_RDONLY), 0);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, 1);
    dup2(nowhere, 2);
    execvp(argv[0], argv.data());
    _exit(127);
}

pid_t start(const std::vector<std::string> &command, const std::string &input) {
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM); // nothing outlives an interrupted run
        become(command, input);
    }
    return pid;
}

} // namespace

Process::Process(const std::vector<std::string> &command, const std::string &input)
    : pid_(start(command, input)) {}

void Process::end() {
    if (pid_ <= 0)
        return;
    kill(pid_, SIGTERM);
    for (int i = 0; i < 200; i++, usleep(10000))
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = 0;
            return;
        }
    kill(pid_, SIGKILL); // it is too busy to listen
    wait();
}

int Process::wait() {
    int status = 0;
    const pid_t ended = waitpid(std::exchange(pid_, 0), &status, 0);
    return ended > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Folder::Folder() {
    char name[] = "/tmp/ipacl-bench-XXXXXX";
    if (!mkdtemp(name))
        give_up("no folder can be made in /tmp");
    path = name;
}

Folder::~Folder() { std::filesystem::remove_all(path); }

Programs programs_beside(const char *self) {
    const auto folder = std::filesystem::path(self).parent_path();
    return {folder / "ipacl-busd", folder / "ipacl", folder / "ipaclctl", folder / "bench_ready"};
}

double until_ready(const std::vector<std::string> &command, Process &process) {
    const Folder folder;
    const std::string path = folder.path + "/notify";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size());
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        give_up("no socket for notifications");
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    const double took = seconds([&] {
        process = Process(command);
        pollfd readable{fd, POLLIN, 0};
        if (poll(&readable, 1, 10000) != 1)
            give_up("a process does not say that it is ready");
    });
    unsetenv("NOTIFY_SOCKET");
    close(fd);
    return took;
}

System::System(const Programs &programs) : programs_(programs) {
    const std::string socket = folder_.path + "/bus";
    setenv("UBUS_SOCKET", socket.c_str(), 1);
    setenv("IPACL_VTY_DIR", folder_.path.c_str(), 1);
    until_ready({programs_.busd, "-s", socket}, broker_);
    restart_daemon();
}

double System::restart_daemon() {
    daemon_.end();
    return until_ready({programs_.daemon}, daemon_);
}
