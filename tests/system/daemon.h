// A broker and a daemon of a test's own, ended by their ids.
#pragma once

#include <libubus.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

// What a program said and how it ended.
struct Outcome {
    int status;
    std::string output; // standard output
    std::string errors; // standard error
};

class System : public testing::Test {
  protected:
    // `program` is the daemon to be started.
    explicit System(const char *program = DAEMON);
    ~System() override;

    void start_broker();
    void start_daemon();
    void launch_daemon(); // without waiting for it
    void end_broker(int signal);
    void end_daemon(int signal);
    // Until the object is on the bus.
    void await_service();

    // Runs ipaclctl; `input` is its standard input.
    Outcome ctl(const std::vector<std::string> &arguments, const std::string &input = "");
    std::string running() { return ctl({"running-config"}).output; }
    std::string write_file(const std::string &name, const std::string &text);
    std::string read_file(const std::string &name);

    std::string directory, socket_path, terminal_directory;
    pid_t broker = 0, daemon = 0;

  private:
    const char *program_;
};

// A client of the bus, for requests that the tool does not make.
class Client {
  public:
    explicit Client(const std::string &path);
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    struct Reply {
        int status;
        std::string output;
        bool truncated;
    };
    // Sends what was put into `message` since the last call.
    Reply call(const char *method);
    // Waits for the bus and the service to be back.
    bool reconnect();

    blob_buf message{};
    ubus_context *ctx;
    uint32_t id = 0;
    int patience = 30000; // milliseconds that a call may take

  private:
    std::string path_;
};

std::string slurp(const std::string &path);

Outcome run(const std::vector<std::string> &command, const std::string &input,
            const std::string &scratch);
