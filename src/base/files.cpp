#include "base/files.h"

#include "base/line_collector.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::base {

namespace {

constexpr int kOpenDirectoriesAtOnce = 16;

int remove_entry(const char* path, const struct stat*, int, FTW*) {
    return std::remove(path) == 0 || errno == ENOENT ? 0 : -1;
}

}  // namespace

bool read_text_file(const char* path, char* buffer, int capacity) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    LineCollector collector(buffer, capacity);
    char chunk[512];
    for (;;) {
        ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0 || !collector.feed(chunk, static_cast<size_t>(got))) break;
    }
    collector.finish();
    close(fd);
    return true;
}

bool write_text_file(const char* path, const char* text) {
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    size_t length = std::strlen(text);
    size_t written = 0;
    while (written < length) {
        ssize_t put = write(fd, text + written, length - written);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) break;
        written += static_cast<size_t>(put);
    }
    bool closed = close(fd) == 0;
    return written == length && closed;
}

bool remove_tree(const char* path) {
    if (access(path, F_OK) != 0 && errno == ENOENT) {
        struct stat link_status {};
        if (lstat(path, &link_status) != 0) return true;  // not even a dangling link
    }
    return nftw(path, remove_entry, kOpenDirectoriesAtOnce, FTW_DEPTH | FTW_PHYS) == 0;
}

}  // namespace cbsd::base
