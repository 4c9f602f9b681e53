// Splits a configuration path ("/etc/config/sas") into the directory that
// holds the package and the package name, after checking its limits.
#pragma once

namespace cbsd::config {

struct UciPath {
    char directory[64];  // with its final '/'
    char package[64];
};

// False (and parts unspecified) for a path of 129 characters or more, one
// without '/', a directory part of 64 characters or more counted with its
// final '/', or a package name of 64 characters or more.
bool uci_split_path(const char* path, UciPath& parts);

}  // namespace cbsd::config
