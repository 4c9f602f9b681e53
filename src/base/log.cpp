#include "base/log.h"

#include "base/settings.h"
#include "base/system.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::base {

namespace {

constexpr size_t kMessageCapacity = 8192;
// The system-log copy is bounded as the command line "logger -p L -t cbsd "TEXT""
// in a 512-byte buffer would be; the text is cut where that line would be cut.
constexpr size_t kSyslogCommandCapacity = 512;

// Copies the log to its single backup "<log>0".  The loop tests for end of
// file before each one-byte read and writes the byte whether or not the read
// succeeded, so the backup ends with the last byte twice; the backup format
// has always been produced this way and tools that read it expect it.
void copy_to_backup(const char* path) {
    FILE* in = std::fopen(path, "rb");
    if (!in) return;
    std::string backup = std::string(path) + "0";
    FILE* out = std::fopen(backup.c_str(), "wb");
    if (out) {
        unsigned char byte = 0;
        while (!std::feof(in)) {
            size_t got = std::fread(&byte, 1, 1, in);
            (void)got;
            std::fwrite(&byte, 1, 1, out);
        }
        std::fclose(out);
    }
    std::fclose(in);
}

FILE* open_log_file(const ProcessSettings& s) {
    struct stat st{};
    long long size = stat(s.logFile, &st) == 0 ? static_cast<long long>(st.st_size) : 0;
    FILE* file = nullptr;
    if (size > s.logFileSize) {
        copy_to_backup(s.logFile);
        file = std::fopen(s.logFile, "w");
    } else {
        file = std::fopen(s.logFile, "at");
    }
    if (!file) std::fprintf(stderr, "[SAS] fail to open log file(%s)!\n", s.logFile);
    return file;
}

// Runs logger with an argument vector: the text never passes through a shell.
void send_to_syslog(int32_t level, const char* text) {
    std::string priority = std::to_string(level);
    size_t overhead = std::strlen("logger -p  -t cbsd \"") + priority.size();
    size_t room = kSyslogCommandCapacity - 1 > overhead ? kSyslogCommandCapacity - 1 - overhead : 0;
    std::string message(text, strnlen(text, room));
    const char* const argv[] = {"logger", "-p", priority.c_str(), "-t", "cbsd", message.c_str(),
                                nullptr};
    run_program(argv);
}

// "[uptime, local time]" of this moment.
void line_prefix(char* out, size_t size) {
    timespec mono{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    timespec wall{};
    clock_gettime(CLOCK_REALTIME, &wall);
    tm local{};
    localtime_r(&wall.tv_sec, &local);
    char stamp[64] = {};
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(out, size, "[%ld, %s]", static_cast<long>(mono.tv_sec), stamp);
}

}  // namespace

void last_words(const char* text) {
    if (settings().logLevel < static_cast<int32_t>(Level::kNotice)) return;
    char line[512] = {};
    line_prefix(line, sizeof line);
    size_t used = std::strlen(line);
    std::snprintf(line + used, sizeof line - used, "%s", text);
    int fd = open(settings().logFile, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return;
    ssize_t written = write(fd, line, std::strlen(line));
    (void)written;  // nothing more can be done about a failed last line
    close(fd);
}

void vlog(int32_t level, uint8_t to_syslog, const char* format, va_list args) {
    const ProcessSettings& s = settings();
    if (s.logLevel < level) return;

    std::unique_ptr<char[]> message(new (std::nothrow) char[kMessageCapacity]);
    if (!message) {
        std::fputs("[SAS] fail to malloc memory for log message!\n", stderr);
        return;
    }
    FILE* file = open_log_file(s);
    char prefix[96] = {};
    line_prefix(prefix, sizeof prefix);

    std::memset(message.get(), 0, kMessageCapacity);
    std::vsnprintf(message.get(), kMessageCapacity, format, args);

    const char* text = message.get();
    bool separate_newline = false;
    if (text[0] == '\n' && text[1] != '\0') {
        separate_newline = true;
        ++text;
    }

    if (file) {
        if (separate_newline) std::fputc('\n', file);
        std::fprintf(file, "%s%s", prefix, text);
        std::fclose(file);
    }
    if (s.debug) {
        if (separate_newline) std::putchar('\n');
        std::printf("%s%s", prefix, text);
        std::fflush(stdout);
    }
    if (to_syslog) send_to_syslog(level, text);
}

void log(int32_t level, uint8_t to_syslog, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vlog(level, to_syslog, format, args);
    va_end(args);
}

namespace {

constexpr uint8_t kLogFileOnly = 0;
constexpr uint8_t kCopyToSyslog = 1;

}  // namespace

#define CBSD_LOG_HELPER(name, level, copy)           \
    void name(const char* format, ...) {             \
        va_list args;                                \
        va_start(args, format);                      \
        vlog(static_cast<int32_t>(level), copy, format, args); \
        va_end(args);                                \
    }

CBSD_LOG_HELPER(notice, Level::kNotice, kLogFileOnly)
CBSD_LOG_HELPER(notice_to_syslog, Level::kNotice, kCopyToSyslog)
CBSD_LOG_HELPER(error, Level::kError, kLogFileOnly)
CBSD_LOG_HELPER(error_to_syslog, Level::kError, kCopyToSyslog)

#undef CBSD_LOG_HELPER

}  // namespace cbsd::base
