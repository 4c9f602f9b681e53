// Small helpers shared by the unit tests.
#pragma once

#include <string>

namespace cbsd::test {

// Whole file as text; empty when it cannot be read.
std::string read_file(const std::string& path);
// Replaces the file's content; returns false on failure.
bool write_file(const std::string& path, const std::string& content);
bool file_exists(const std::string& path);
// Runs a shell command (tests only) and returns its standard output.
std::string shell(const std::string& command);

}  // namespace cbsd::test
