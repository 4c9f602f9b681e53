#include "test_util.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

namespace cbsd::test {

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

bool write_file(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    return static_cast<bool>(out);
}

bool file_exists(const std::string& path) {
    struct stat st{};
    return stat(path.c_str(), &st) == 0;
}

std::string shell(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return output;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) output.append(chunk, n);
    pclose(pipe);
    return output;
}

}  // namespace cbsd::test
