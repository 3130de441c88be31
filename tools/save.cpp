#include "save.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace ipaclctl {
namespace {

constexpr mode_t kNewFile = 0640;

// The file behind any links; the name itself when there is none yet.
std::string real_name(const std::string &file) {
    const std::unique_ptr<char, void (*)(void *)> real(realpath(file.c_str(), nullptr), free);
    return real ? real.get() : file;
}

std::string directory_of(const std::string &file) {
    const size_t slash = file.rfind('/');
    return slash == std::string::npos ? "." : file.substr(0, slash + 1);
}

// A file beside another one, which takes its place when it is complete and vanishes otherwise.
class Temporary {
  public:
    explicit Temporary(const std::string &target)
        : name_(target + ".XXXXXX"), fd_(mkostemp(name_.data(), O_CLOEXEC)) {}
    ~Temporary() {
        if (fd_ < 0)
            return;
        close(fd_);
        unlink(name_.c_str()); // in vain once it has been renamed
    }
    Temporary(const Temporary &) = delete;
    Temporary &operator=(const Temporary &) = delete;

    // Each tells whether it was done, and errno if not.
    bool made() const { return fd_ >= 0; }
    bool write(std::string_view text) {
        while (!text.empty()) {
            const ssize_t done = ::write(fd_, text.data(), text.size());
            if (done < 0 && errno != EINTR)
                return false;
            text.remove_prefix(done < 0 ? 0 : static_cast<size_t>(done));
        }
        return true;
    }
    bool take_owner_and_mode(const struct stat &old) {
        // Only root can give a file away. Whoever can't keeps the group's rights from a group
        // that they were not meant for.
        const bool owned = fchown(fd_, old.st_uid, old.st_gid) == 0;
        const mode_t mode = old.st_mode & (owned ? 0777 : 0707);
        return fchmod(fd_, mode) == 0;
    }
    bool set_mode(mode_t mode) { return fchmod(fd_, mode) == 0; }
    bool rename_to(const std::string &target) {
        return fsync(fd_) == 0 && rename(name_.c_str(), target.c_str()) == 0;
    }

  private:
    std::string name_;
    int fd_;
};

// The rename itself is to outlive a loss of power. Where a directory can't be forced to the disk
// the file is in place all the same.
void force_directory(const std::string &directory) {
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    fsync(fd);
    close(fd);
}

} // namespace

std::string replace_file(const std::string &file, const std::string &text) {
    const auto failed = [&] { return "can't write " + file + ": " + strerror(errno); };
    const std::string target = real_name(file);
    struct stat old {};
    const bool there = stat(target.c_str(), &old) == 0;
    if (!there && errno != ENOENT)
        return failed();
    if (there && !S_ISREG(old.st_mode))
        return "can't write " + file + ": not a plain file";
    Temporary temporary(target);
    if (!temporary.made() || !temporary.write(text))
        return failed();
    if (!(there ? temporary.take_owner_and_mode(old) : temporary.set_mode(kNewFile)))
        return failed();
    if (!temporary.rename_to(target))
        return failed();
    force_directory(directory_of(target));
    return "";
}

} // namespace ipaclctl
