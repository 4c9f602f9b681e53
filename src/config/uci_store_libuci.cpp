// The store on libuci: each call uses a private context, so the main thread
// and the worker never share parser state.  Packages are loaded by their full
// path, which keeps libuci's change files under /tmp/.uci out of the way: a
// read sees only committed content, a commit never flushes changes someone
// else staged, and a writer killed mid-set leaves no half-written change file
// behind for the next read to apply.
#include "config/uci_path.h"
#include "config/uci_store.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <uci.h>
}

namespace cbsd::config {

namespace {

class Context {
public:
    Context() : ctx_(uci_alloc_context()) {}
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    ~Context() {
        if (ctx_) uci_free_context(ctx_);
    }
    uci_context* get() const { return ctx_; }

private:
    uci_context* ctx_;
};

// libuci's commit releases its lock on the file before it renames the new
// content into place, so a writer that waited on the old file rewrites stale
// content and an update is lost.  This program's writers (both threads, any
// process) therefore take turns on a lock file of their own next to the
// package for the whole set and commit.
class WriterTurn {
public:
    explicit WriterTurn(const UciPath& parts) {
        char lock_path[160];
        std::snprintf(lock_path, sizeof lock_path, "%s.%s.lock", parts.directory, parts.package);
        fd_ = open(lock_path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd_ < 0) return;  // e.g. a read-only directory: nothing to commit there anyway
        while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    WriterTurn(const WriterTurn&) = delete;
    WriterTurn& operator=(const WriterTurn&) = delete;
    ~WriterTurn() {
        if (fd_ >= 0) close(fd_);
    }

private:
    int fd_ = -1;
};

// Holds the package file itself locked, as libuci's own writers lock it,
// while the new content is written and renamed over it.
class PackageLock {
public:
    explicit PackageLock(const char* path) : fd_(open(path, O_RDONLY | O_CLOEXEC)) {
        if (fd_ < 0) return;
        while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    PackageLock(const PackageLock&) = delete;
    PackageLock& operator=(const PackageLock&) = delete;
    ~PackageLock() {
        if (fd_ >= 0) close(fd_);
    }
    bool mode(mode_t& out) const {
        struct stat status {};
        if (fd_ < 0 || fstat(fd_, &status) != 0) return false;
        out = status.st_mode & 07777;
        return true;
    }

private:
    int fd_;
};

// Exports the package into the open temporary file; true only when every
// byte reached the disk.
bool export_completely(uci_context* ctx, uci_package* package, int fd) {
    FILE* stream = fdopen(fd, "w");
    if (!stream) {
        close(fd);
        return false;
    }
    bool written = uci_export(ctx, stream, package, false) == UCI_OK;
    written = std::fflush(stream) == 0 && !std::ferror(stream) && written;
    written = fsync(fd) == 0 && written;
    return std::fclose(stream) == 0 && written;
}

// Writes the package in libuci's export form to a temporary file next to it
// and renames that over the old file, as libuci's commit does, but only when
// the whole content was written and synced: libuci renames even after a
// failed flush or sync, which on a full file system leaves an empty package.
// Any failure leaves the old file as it was.
bool commit_whole(uci_context* ctx, uci_package* package, const char* path, const UciPath& parts) {
    PackageLock lock(path);
    mode_t mode = 0;
    if (!lock.mode(mode)) return false;
    char temporary[160];
    std::snprintf(temporary, sizeof temporary, "%s.%s.uci-XXXXXX", parts.directory, parts.package);
    int fd = mkstemp(temporary);
    if (fd < 0) return false;
    bool done = export_completely(ctx, package, fd) && chmod(temporary, mode) == 0 &&
                rename(temporary, path) == 0;
    if (!done) unlink(temporary);
    return done;
}

// True when the looked-up option already has the value to set, or when an
// empty value (a removal) meets no such option.
bool holds_value(const uci_ptr& pointer) {
    if (!pointer.s) return false;
    if (!pointer.o) return pointer.value[0] == '\0';
    return pointer.o->type == UCI_TYPE_STRING && pointer.o->v.string &&
           std::strcmp(pointer.o->v.string, pointer.value) == 0;
}

}  // namespace

unsigned config_get(const char* path, const char* section, const char* option, char* buffer,
                    size_t size) {
    if (!path || !section || !option || !buffer || size == 0) return 0;
    UciPath parts;
    if (!uci_split_path(path, parts)) return 0;

    Context context;
    uci_context* ctx = context.get();
    if (!ctx) return 0;
    uci_set_confdir(ctx, parts.directory);
    uci_package* package = nullptr;
    if (uci_load(ctx, path, &package) != UCI_OK) {
        if (package) uci_unload(ctx, package);
        return 0;
    }

    // Sections are matched by name; every match is visited, the last one wins.
    uci_element* element = nullptr;
    uci_foreach_element(&package->sections, element) {
        if (!element->name || std::strcmp(element->name, section) != 0) continue;
        uci_option* found = uci_lookup_option(ctx, uci_to_section(element), option);
        if (!found || found->type != UCI_TYPE_STRING || !found->v.string) continue;
        std::memset(buffer, 0, size);
        std::strncpy(buffer, found->v.string, size - 1);
    }
    uci_unload(ctx, package);
    return 1;
}

unsigned config_set(const char* path, const char* section, const char* option, const char* value) {
    if (!path || !section || !option || !value) return 0;
    UciPath parts;
    if (!uci_split_path(path, parts)) return 0;
    WriterTurn turn(parts);
    UciPath confdir = parts;
    size_t directory_length = std::strlen(confdir.directory);
    if (directory_length > 1) confdir.directory[directory_length - 1] = '\0';

    Context context;
    uci_context* ctx = context.get();
    if (!ctx) return 0;
    uci_set_confdir(ctx, confdir.directory);

    // Only package, section, option and value: libuci loads the package and
    // finds the section by name.  A failed set or commit changes nothing and
    // is not reported.  The commit is this program's own (commit_whole).
    uci_ptr pointer{};
    pointer.package = path;
    pointer.section = section;
    pointer.option = option;
    pointer.value = value;
    // The lookup is the one uci_set would make itself; it tells whether the
    // file already holds the value, which is then not written again (flash).
    if (uci_lookup_ptr(ctx, &pointer, nullptr, false) == UCI_OK && pointer.p &&
        !holds_value(pointer) && uci_set(ctx, &pointer) == UCI_OK) {
        commit_whole(ctx, pointer.p, path, parts);
    }
    if (pointer.p) uci_unload(ctx, pointer.p);
    return 1;
}

}  // namespace cbsd::config
