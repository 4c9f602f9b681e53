// Small files the daemon reads and writes itself (kernel switches, the zone
// text, the runtime cache): no process is started for them.
#pragma once

namespace cbsd::base {

// Reads the file into the buffer as run_command would have kept `cat` of it:
// whole lines, at most capacity - 1 characters.  The buffer is not touched
// when the file is missing, unreadable or empty.  False when it could not be
// opened.
bool read_text_file(const char* path, char* buffer, int capacity);

// Replaces the file's content with text (created with mode 0666 less the
// umask, as a shell redirection does); false on any failure.
bool write_text_file(const char* path, const char* text);

// Removes a file or a whole directory tree, like `rm -rf`; a missing path is
// not an error.  False when something could not be removed.
bool remove_tree(const char* path);

}  // namespace cbsd::base
