// Saving the running configuration: whole or not at all, and back after the service was killed.

#include "daemon.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Save : public System {
  protected:
    // Makes the running configuration one list with as many rules.
    void run_rules(int count) {
        ctl({"destroy", "web"});
        std::string config = "ip access-list standard web\n";
        for (int i = 0; i < count; i++)
            config +=
                " permit 10.0." + std::to_string(i / 200) + "." + std::to_string(i % 200) + "\n";
        ASSERT_EQ(ctl({"load", "-"}, config).status, 0);
    }
    // Makes the running configuration longer than one message of the bus.
    void run_more_than_a_message() {
        for (int part = 0; part < 14; part++) {
            std::string config = "ip access-list extended part" + std::to_string(part) + "\n";
            for (int i = 0; i < 1000; i++)
                config += " permit tcp 10." + std::to_string(i / 250) + "." +
                          std::to_string(i % 250) +
                          ".0 255.255.255.0 any eq www precedence 6 totallen lt 1500 ttl gt 1\n";
            ASSERT_EQ(ctl({"load", "-"}, config).status, 0);
        }
    }
    // Every name in the folder of saved files.
    std::string listing() { return run({"/bin/ls", folder}, "", directory).output; }
    static mode_t mode(const std::string &path) {
        struct stat info;
        return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
    }
    Save() {
        folder = directory + "/saved";
        mkdir(folder.c_str(), 0755);
        file = folder + "/startup-config";
    }

    std::string folder, file;
};

TEST_F(Save, EveryListIsBackAfterTheServiceWasKilled) {
    ASSERT_EQ(ctl({"load", std::string(EXAMPLES) + "/branch-office.conf"}).status, 0);
    const std::string before = running();
    const Outcome saved = ctl({"save", file});
    EXPECT_EQ(saved.status, 0);
    EXPECT_EQ(saved.output + saved.errors, "");
    EXPECT_EQ(read_file("saved/startup-config"), before);
    end_daemon(SIGKILL);
    start_daemon();
    EXPECT_EQ(running(), "");
    EXPECT_EQ(ctl({"load", file}).status, 0);
    EXPECT_EQ(running(), before);
    EXPECT_EQ(listing(), "startup-config\n");
}

TEST_F(Save, ANewFileIsForItsOwnerAndGroup) {
    const mode_t mask = umask(0077);
    EXPECT_EQ(ctl({"save", file}).status, 0);
    umask(mask);
    EXPECT_EQ(mode(file), 0640U);
    EXPECT_EQ(read_file("saved/startup-config"), "");
}

TEST_F(Save, ModeAndOwnerAreKept) {
    run_rules(1);
    std::ofstream(file) << "old\n";
    chmod(file.c_str(), 0604);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(file.c_str(), 12, 34), 0);
    }
    EXPECT_EQ(ctl({"save", file}).status, 0);
    EXPECT_EQ(read_file("saved/startup-config"), running());
    EXPECT_EQ(mode(file), 0604U);
    struct stat info;
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, geteuid() == 0 ? 12U : geteuid());
    EXPECT_EQ(info.st_gid, geteuid() == 0 ? 34U : getegid());
}

TEST_F(Save, ALinkStaysAndItsTargetIsReplaced) {
    run_rules(1);
    ASSERT_EQ(symlink("flash", (folder + "/link").c_str()), 0);
    std::ofstream(folder + "/flash") << "old\n";
    EXPECT_EQ(ctl({"save", folder + "/link"}).status, 0);
    EXPECT_TRUE(std::filesystem::is_symlink(folder + "/link"));
    EXPECT_EQ(read_file("saved/flash"), running());
    EXPECT_EQ(listing(), "flash\nlink\n");
}

TEST_F(Save, WhatIsNoPlainFileIsLeftAlone) {
    Outcome saved = ctl({"save", "/dev/null"});
    EXPECT_EQ(saved.status, 1);
    EXPECT_EQ(saved.errors, "ipaclctl: can't write /dev/null: not a plain file\n");
    saved = ctl({"save", folder});
    EXPECT_EQ(saved.errors, "ipaclctl: can't write " + folder + ": not a plain file\n");
    saved = ctl({"save", folder + "/none/file"});
    EXPECT_EQ(saved.status, 1);
    EXPECT_EQ(saved.errors,
              "ipaclctl: can't write " + folder + "/none/file: No such file or directory\n");
    EXPECT_EQ(listing(), "");
}

TEST_F(Save, AFullDiskLeavesTheOldFileAndNoOther) {
    run_rules(1000);
    std::ofstream(file) << "old\n";
    // The tool inherits the limit on a file's size; it stands for a disk that runs full.
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{4096, before.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    const Outcome saved = ctl({"save", file});
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(saved.status, 1);
    EXPECT_EQ(saved.errors, "ipaclctl: can't write " + file + ": File too large\n");
    EXPECT_EQ(read_file("saved/startup-config"), "old\n");
    EXPECT_EQ(listing(), "startup-config\n");
}

TEST_F(Save, ALongConfigurationIsSavedWhole) {
    run_more_than_a_message();
    EXPECT_EQ(ctl({"save", file}).status, 0);
    const std::string saved = read_file("saved/startup-config");
    EXPECT_GT(saved.size(), 1024U * 1024) << "longer than a message of the bus";
    EXPECT_EQ(saved, running());
}

TEST_F(Save, WhatCanNotBeReadWholeIsNotSaved) {
    std::ofstream(file) << "old\n";
    // A service that can't write its terminal files to their end, as on a full disk.
    end_daemon(SIGTERM);
    signal(SIGXFSZ, SIG_IGN);
    start_daemon();
    signal(SIGXFSZ, SIG_DFL);
    run_more_than_a_message();
    const rlimit small{600000, RLIM_INFINITY};
    ASSERT_EQ(prlimit(daemon, RLIMIT_FSIZE, &small, nullptr), 0);
    const Outcome saved = ctl({"save", file});
    EXPECT_EQ(saved.status, 2);
    EXPECT_EQ(saved.errors, "ipaclctl: the text is too long for a bus message, and the terminal "
                            "files can't be had whole\n");
    EXPECT_EQ(read_file("saved/startup-config"), "old\n");
}

TEST_F(Save, WithoutAServiceTheOldFileStays) {
    std::ofstream(file) << "old\n";
    end_daemon(SIGTERM);
    EXPECT_EQ(ctl({"save", file}).status, 2);
    EXPECT_EQ(read_file("saved/startup-config"), "old\n");
}

TEST_F(Save, AReaderFindsTheOldTextOrTheNewOne) {
    run_rules(400);
    ASSERT_EQ(ctl({"save", file}).status, 0);
    const std::string small = read_file("saved/startup-config");
    run_rules(800);
    const std::string large = running();
    const pid_t writer = fork();
    if (writer == 0) {
        for (int i = 0; i < 40; i++) {
            // Alternately the small configuration, put there by hand, and the large one, saved.
            std::ofstream(folder + "/other") << small;
            rename((folder + "/other").c_str(), file.c_str());
            if (ctl({"save", file}).status != 0)
                _exit(1);
        }
        _exit(0);
    }
    int status = 1;
    unsigned broken = 0, seen[2] = {};
    while (waitpid(writer, &status, WNOHANG) == 0) {
        const std::string found = read_file("saved/startup-config");
        seen[0] += found == small;
        seen[1] += found == large;
        broken += found != small && found != large;
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(broken, 0U);
    EXPECT_GT(seen[0], 0U);
    EXPECT_GT(seen[1], 0U);
}

} // namespace
