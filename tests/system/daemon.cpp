#include "daemon.h"

#include "program.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Starts a program with standard input, output and error in files; the null name is /dev/null.
pid_t spawn(const std::vector<std::string> &command, const char *in, const char *out,
            const char *err) {
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open(in ? in : "/dev/null", O_RDONLY), 0);
        dup2(open(out ? out : "/dev/null", O_WRONLY | O_CREAT | O_APPEND, 0600), 1);
        dup2(open(err ? err : "/dev/null", O_WRONLY | O_CREAT | O_APPEND, 0600), 2);
        execute(command);
        _exit(127);
    }
    return pid;
}

void end(pid_t &pid, int signal) {
    if (pid <= 0)
        return;
    kill(pid, signal);
    waitpid(pid, nullptr, 0);
    pid = 0;
}

void rest() { usleep(10000); }

} // namespace

std::string slurp(const std::string &path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

Outcome run(const std::vector<std::string> &command, const std::string &input,
            const std::string &scratch) {
    static int number;
    const std::string base =
        scratch + "/run" + std::to_string(getpid()) + "-" + std::to_string(++number);
    std::ofstream(base + ".in") << input;
    const pid_t pid =
        spawn(command, (base + ".in").c_str(), (base + ".out").c_str(), (base + ".err").c_str());
    int status;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), slurp(base + ".out"),
            slurp(base + ".err")};
}

System::System(const char *program) : program_(program) {
    char name[] = "/tmp/ipacl-system-XXXXXX";
    directory = mkdtemp(name);
    socket_path = directory + "/bus.sock";
    terminal_directory = directory + "/terminals";
    mkdir(terminal_directory.c_str(), 0755);
    setenv("UBUS_SOCKET", socket_path.c_str(), 1);
    setenv("IPACL_VTY_DIR", terminal_directory.c_str(), 1);
    start_broker();
    start_daemon();
}

System::~System() {
    end(daemon, SIGTERM);
    end(broker, SIGTERM);
    std::filesystem::remove_all(directory);
}

void System::start_broker() {
    broker = spawn(program(BUSD, {"-s", socket_path}), nullptr, nullptr, nullptr);
    for (int i = 0; i < 1000; i++, rest()) {
        if (ubus_context *ctx = ubus_connect(socket_path.c_str())) {
            ubus_free(ctx);
            uloop_done();
            return;
        }
    }
    FAIL() << "the broker did not start";
}

void System::start_daemon() {
    launch_daemon();
    await_service();
}

void System::launch_daemon() {
    daemon = spawn(program(program_), nullptr, (directory + "/daemon.out").c_str(),
                   (directory + "/daemon.err").c_str());
}

void System::await_service() {
    ubus_context *ctx = ubus_connect(socket_path.c_str());
    ASSERT_NE(ctx, nullptr);
    uint32_t id = 0;
    for (int i = 0; i < 1000 && ubus_lookup_id(ctx, "L.IPACL", &id) != 0; i++)
        rest();
    // The object is published before the loop runs, and until it runs a SIGTERM is lost. An answer
    // comes from the loop.
    const int answered = ubus_invoke(ctx, id, "gsync_init", nullptr, nullptr, nullptr, 10000);
    ubus_free(ctx);
    uloop_done();
    ASSERT_NE(id, 0U) << "the service did not come";
    ASSERT_EQ(answered, 0) << "the service does not answer";
}

void System::end_broker(int signal) { end(broker, signal); }
void System::end_daemon(int signal) { end(daemon, signal); }

Outcome System::ctl(const std::vector<std::string> &arguments, const std::string &input) {
    return run(program(TOOL, arguments), input, directory);
}

std::string System::write_file(const std::string &name, const std::string &text) {
    std::ofstream(directory + "/" + name) << text;
    return directory + "/" + name;
}

std::string System::read_file(const std::string &name) { return slurp(directory + "/" + name); }

Client::Client(const std::string &path) : ctx(ubus_connect(path.c_str())), path_(path) {
    ctx->connection_lost = [](ubus_context *) {};
    ubus_lookup_id(ctx, "L.IPACL", &id);
    blobmsg_buf_init(&message);
}

Client::~Client() {
    ubus_free(ctx);
    blob_buf_free(&message);
    uloop_done();
}

Client::Reply Client::call(const char *method) {
    Reply reply{0, "", false};
    reply.status = ubus_invoke(
        ctx, id, method, message.head,
        [](ubus_request *req, int, blob_attr *msg) {
            static const blobmsg_policy policy[] = {
                {.name = "output", .type = BLOBMSG_TYPE_STRING},
                {.name = "truncated", .type = BLOBMSG_TYPE_INT8},
            };
            blob_attr *tb[2];
            auto *r = static_cast<Reply *>(req->priv);
            blobmsg_parse(policy, 2, tb, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
            r->output = tb[0] ? blobmsg_get_string(tb[0]) : "";
            r->truncated = tb[1] && blobmsg_get_bool(tb[1]);
        },
        &reply, patience);
    blobmsg_buf_init(&message);
    return reply;
}

bool Client::reconnect() {
    for (int i = 0; i < 1000; i++, rest()) {
        id = 0;
        if (ubus_reconnect(ctx, path_.c_str()) == 0 && ubus_lookup_id(ctx, "L.IPACL", &id) == 0 &&
            id != 0)
            return true;
    }
    return false;
}
