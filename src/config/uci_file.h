// The UCI configuration file format, as libuci reads and writes it:
//
//   package <name>                      (ignored: the file name is the package)
//   config <type> ['<name>']            (a section; without a name it is anonymous)
//   option <name> '<value>'             (a string option of the last section)
//   list <name> '<value>'               (one item of a list option)
//
// Words are unquoted, 'single quoted' (no escapes) or "double quoted"
// (backslash escapes); a backslash at the end of a line continues it; '#'
// outside quotes starts a comment; ';' separates commands on one line.
// Sections with the same name merge into the first one, an option given
// twice keeps its place and takes the later value, and an option with an
// empty value is not created.  A file libuci refuses in its default strict
// mode is refused here too.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace cbsd::config {

struct UciOption {
    std::string_view name;
    std::string_view value;               // when !is_list
    std::vector<std::string_view> items;  // when is_list
    bool is_list = false;
};

struct UciSection {
    std::string_view type;
    std::string_view name;  // empty for an anonymous section
    std::vector<UciOption> options;
};

struct UciPackage {
    std::vector<UciSection> sections;
};

// Parses text into package.  The words are unescaped in place, so text is
// modified and every view in package points into it.  False when the text
// is not a valid UCI file (package is then unspecified).
bool uci_parse(std::string& text, UciPackage& package);

// The file content libuci writes on commit: sections and options only,
// every value single-quoted.
void uci_serialize(const UciPackage& package, std::string& out);

// Names of sections and options: letters, digits and '_'.
bool uci_valid_name(std::string_view name);
// Package (file) names: printable ASCII without blanks.
bool uci_valid_package_name(std::string_view name);

// The named section, or null; anonymous sections have no name to match.
UciSection* uci_find_section(UciPackage& package, std::string_view name);
UciOption* uci_find_option(UciSection& section, std::string_view name);

// Sets a string option; an empty value removes the option, as libuci does.
void uci_set_option(UciSection& section, std::string_view name, std::string_view value);

}  // namespace cbsd::config
