// The built-in store, for systems without libuci.  It reads and writes the
// same files with the same locks as libuci: a shared flock on the file to
// read, an exclusive one to write, and a commit that writes the new content
// to a temporary file in the same directory, syncs it and renames it over the
// old file, keeping the file's mode.  Unlike libuci, the writer keeps its
// lock until the rename is done and re-opens the file when another writer
// replaced it while it waited, so concurrent writers never lose an update.
#include "config/uci_file.h"
#include "config/uci_path.h"
#include "config/uci_store.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::config {

namespace {

// No configuration file comes near this; anything larger is not one.
constexpr off_t kMaxFileSize = 16 * 1024 * 1024;

class FileHandle {
public:
    explicit FileHandle(int fd) : fd_(fd) {}
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    ~FileHandle() {
        if (fd_ >= 0) close(fd_);
    }
    int get() const { return fd_; }

private:
    int fd_;
};

int open_locked(const char* file, int flags, int operation) {
    int fd = open(file, flags | O_CLOEXEC);
    if (fd < 0) return -1;
    while (flock(fd, operation) != 0) {
        if (errno == EINTR) continue;
        if (errno == ENOSYS) break;  // no locks on this file system: go on unlocked, as libuci does
        close(fd);
        return -1;
    }
    return fd;
}

bool read_all(int fd, const struct stat& info, std::string& text) {
    if (!S_ISREG(info.st_mode) || info.st_size > kMaxFileSize) return false;
    text.resize(static_cast<size_t>(info.st_size));
    size_t filled = 0;
    while (filled < text.size()) {
        ssize_t got = read(fd, text.data() + filled, text.size() - filled);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) break;
        filled += static_cast<size_t>(got);
    }
    text.resize(filled);
    return true;
}

bool write_all(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t put = write(fd, text.data() + done, text.size() - done);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        done += static_cast<size_t>(put);
    }
    return true;
}

// The file to replace: the path itself, or what it links to.
bool resolve_target(const char* path, std::string& target) {
    struct stat link_info{};
    if (lstat(path, &link_info) != 0) return false;
    if (!S_ISLNK(link_info.st_mode)) {
        target = path;
        return true;
    }
    char resolved[PATH_MAX];
    if (!realpath(path, resolved)) return false;
    target = resolved;
    return true;
}

// Writes content next to target and renames it over target, so the file is
// always either the complete old or the complete new content.
bool replace_file(const std::string& target, const char* package, mode_t mode,
                  const std::string& content) {
    std::string temporary = target.substr(0, target.rfind('/') + 1);
    temporary.append(".").append(package).append(".uci-XXXXXX");
    int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) return false;
    bool written = write_all(fd, content) && fchmod(fd, mode & 07777) == 0 && fsync(fd) == 0;
    written = close(fd) == 0 && written;
    if (!written || rename(temporary.c_str(), target.c_str()) != 0) {
        unlink(temporary.c_str());
        return false;
    }
    return true;
}

// True when setting option to value would change nothing: the same string
// is there already, or an empty value (a removal) meets no such option.
bool holds_value(UciSection& section, const char* option, const char* value) {
    const UciOption* existing = uci_find_option(section, option);
    if (!existing) return value[0] == '\0';
    return !existing->is_list && existing->value == value;
}

// Sets the option under the exclusive lock of the file.  While this writer
// waited for the lock another one may have renamed a new file over the one
// it opened; it then starts again on the new file.
bool commit_option(const char* path, const char* package, const char* section, const char* option,
                   const char* value) {
    for (;;) {
        // Read-only: the new content goes to a new file, and a file opened
        // for writing reports a write to directory watchers when closed,
        // even when nothing was written (a set of an unchanged value).
        FileHandle file(open_locked(path, O_RDONLY, LOCK_EX));
        if (file.get() < 0) return false;
        struct stat opened{}, current{};
        if (fstat(file.get(), &opened) != 0 || stat(path, &current) != 0) return false;
        if (opened.st_ino != current.st_ino || opened.st_dev != current.st_dev) continue;

        std::string text;
        UciPackage parsed;
        if (!read_all(file.get(), opened, text) || !uci_parse(text, parsed)) return false;
        UciSection* target_section = uci_find_section(parsed, section);
        if (!target_section) return false;
        // The file lives on flash: a value it already holds is not written again.
        if (holds_value(*target_section, option, value)) return true;
        uci_set_option(*target_section, option, value);

        std::string content;
        uci_serialize(parsed, content);
        std::string target;
        return resolve_target(path, target) && replace_file(target, package, opened.st_mode, content);
    }
}

}  // namespace

unsigned config_get(const char* path, const char* section, const char* option, char* buffer,
                    size_t size) {
    if (!path || !section || !option || !buffer || size == 0) return 0;
    UciPath parts;
    if (!uci_split_path(path, parts) || !uci_valid_package_name(parts.package)) return 0;

    std::string text;
    {
        FileHandle file(open_locked(path, O_RDONLY, LOCK_SH));
        struct stat info{};
        if (file.get() < 0 || fstat(file.get(), &info) != 0) return 0;
        if (!read_all(file.get(), info, text)) return 0;
    }
    UciPackage parsed;
    if (!uci_parse(text, parsed)) return 0;

    UciSection* found = uci_find_section(parsed, section);
    const UciOption* value = found ? uci_find_option(*found, option) : nullptr;
    if (value && !value->is_list && !value->value.empty()) {
        std::memset(buffer, 0, size);
        size_t length = value->value.size() < size - 1 ? value->value.size() : size - 1;
        std::memcpy(buffer, value->value.data(), length);
    }
    return 1;
}

unsigned config_set(const char* path, const char* section, const char* option, const char* value) {
    if (!path || !section || !option || !value) return 0;
    UciPath parts;
    if (!uci_split_path(path, parts)) return 0;
    // A name the file format cannot carry would leave a file nobody can read
    // again: such a set writes nothing, like a set into a missing section.
    if (uci_valid_package_name(parts.package) && uci_valid_name(section) && uci_valid_name(option))
        commit_option(path, parts.package, section, option, value);
    return 1;
}

}  // namespace cbsd::config
