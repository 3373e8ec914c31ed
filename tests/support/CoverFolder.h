// Covers a folder with a tmpfs through which all that was in it shows, so that a new entry can be
// made in it without touching the real one. For a process with a mount namespace of its own.
#ifndef KYP_TESTS_SUPPORT_COVERFOLDER_H
#define KYP_TESTS_SUPPORT_COVERFOLDER_H

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <string>

inline bool mount_tmpfs(std::string const& at, char const* mode) {
    std::string const options = std::string("mode=") + mode;
    return mount("kyp", at.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0;
}

// Makes `name` in the tmpfs that covers a folder and binds the folder's own entry, reached through
// `source`, onto it. A failure leaves an empty entry: only that one thing is out of sight.
inline void show_entry(std::string const& source, std::string const& name) {
    struct stat info;
    if (lstat(source.c_str(), &info) != 0) return;
    if (S_ISLNK(info.st_mode)) {
        char target[PATH_MAX];
        ssize_t const n = readlink(source.c_str(), target, sizeof target - 1);
        if (n > 0)
            (void)!symlink(std::string(target, static_cast<size_t>(n)).c_str(), name.c_str());
        return;
    }
    if (S_ISDIR(info.st_mode)) {
        mkdir(name.c_str(), 0755);
    } else {
        close(open(name.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    }
    mount(source.c_str(), name.c_str(), nullptr, MS_BIND | MS_REC, nullptr);
}

// Leaves the entry `hidden` out of sight. False with errno when the folder cannot be covered.
inline bool cover_folder(std::string const& folder, char const* mode,
                         std::string const& hidden = "") {
    DIR* entries = opendir(folder.c_str());
    if (entries == nullptr) return false;
    bool const covered = mount_tmpfs(folder, mode);
    std::string const below = "/proc/self/fd/" + std::to_string(dirfd(entries)) + "/";
    while (dirent const* entry = covered ? readdir(entries) : nullptr) {
        std::string const name = entry->d_name;
        if (name == "." || name == ".." || name == hidden) continue;
        show_entry(below + name, folder + "/" + name);
    }
    closedir(entries);
    return covered;
}

#endif
