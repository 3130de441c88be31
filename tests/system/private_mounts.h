// A mount namespace of the test's own, entered before the daemon is started in it.
#pragma once

#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

class PrivateMounts {
  protected:
    PrivateMounts() {
        if (geteuid() != 0)
            reason = "needs root, for a mount namespace";
        else if (unshare(CLONE_NEWNS) != 0 ||
                 mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            reason = "this host allows no mount namespaces";
    }
    // To be called before the directory is removed.
    void unmount() {
        if (!mounted_.empty())
            umount2(mounted_.c_str(), MNT_DETACH);
        mounted_.clear();
    }
    // An empty file system of that many bytes on a directory.
    bool mount_small(const std::string &directory, size_t bytes) {
        const std::string options = "mode=0755,size=" + std::to_string(bytes);
        if (mount("tmpfs", directory.c_str(), "tmpfs", 0, options.c_str()) != 0)
            return false;
        mounted_ = directory;
        return true;
    }
    bool make_read_only() {
        return mount("tmpfs", mounted_.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr) == 0;
    }
    const char *reason = nullptr;

  private:
    std::string mounted_;
};
