#include "config/uci_file.h"

#include <cstddef>

namespace cbsd::config {

namespace {

// isspace() of the C locale, without its locale lookup.
bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool is_name_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool is_printable_word_char(char c) {
    auto u = static_cast<unsigned char>(c);
    return u >= 33 && u <= 126;
}

enum class WordKind { kValue, kType, kName, kPackageName };

bool valid_word(std::string_view word, WordKind kind) {
    for (char c : word) {
        if (is_name_char(c)) continue;
        switch (kind) {
            case WordKind::kValue: break;
            case WordKind::kName: return false;
            case WordKind::kPackageName:
                if (c != '-') return false;
                break;
            case WordKind::kType:
                if (!is_printable_word_char(c)) return false;
                break;
        }
    }
    return true;
}

// Reads the file the way libuci does: line by line, where a quoted word or a
// backslash before the newline carries the line on.  Words are unescaped in
// place: the write index never passes the read index.
class Parser {
public:
    Parser(std::string& text, UciPackage& package)
        : buf_(text.data()), len_(text.size()), package_(package) {}

    bool run() {
        package_.sections.clear();
        for (size_t i = 0; i < len_; ++i) {
            if (buf_[i] == '\0') return false;
        }
        while (pos_ < len_) {
            line_ended_ = false;
            if (!parse_line()) return false;
            cut_line();
        }
        return true;
    }

private:
    static constexpr size_t kNoSection = static_cast<size_t>(-1);

    // The character under the cursor; 0 once the current line has ended.
    char cur() const { return line_ended_ || pos_ >= len_ ? '\0' : buf_[pos_]; }

    // Steps over one character outside quotes; a newline ends the line.
    void step() {
        if (buf_[pos_] == '\n') line_ended_ = true;
        ++pos_;
    }

    // The rest of the line is ignored (a comment, or a line cut short).
    void cut_line() {
        if (line_ended_) return;
        while (pos_ < len_ && buf_[pos_] != '\n') ++pos_;
        if (pos_ < len_) ++pos_;
        line_ended_ = true;
    }

    void skip_space() {
        while (cur() != '\0' && is_space(cur())) step();
    }

    // After a backslash: false when it joined the next line (or hit the end
    // of the file), true when the character under the cursor is literal.
    bool backslash() {
        ++pos_;
        if (pos_ >= len_) return false;
        if (buf_[pos_] == '\n') {
            ++pos_;
            return false;
        }
        if (buf_[pos_] == '\r' && pos_ + 1 < len_ && buf_[pos_ + 1] == '\n') {
            pos_ += 2;
            return false;
        }
        return true;
    }

    bool single_quoted(size_t& target) {
        ++pos_;
        while (pos_ < len_) {
            char c = buf_[pos_++];
            if (c == '\'') return true;
            buf_[target++] = c;
        }
        return false;
    }

    bool double_quoted(size_t& target) {
        ++pos_;
        while (pos_ < len_) {
            char c = buf_[pos_];
            if (c == '"') {
                ++pos_;
                return true;
            }
            if (c == '\\' && !backslash()) continue;
            if (pos_ >= len_) break;
            buf_[target++] = buf_[pos_++];
        }
        return false;
    }

    // One word; false on an unterminated quote.
    bool word(size_t& target) {
        bool skip_separator = true;
        do {
            switch (cur()) {
                case '\'':
                    if (!single_quoted(target)) return false;
                    break;
                case '"':
                    if (!double_quoted(target)) return false;
                    break;
                case '#':
                    cut_line();
                    return true;
                case '\0':
                    return true;
                case ';':
                    skip_separator = false;
                    goto done;
                case '\\':
                    if (!backslash()) continue;
                    buf_[target++] = buf_[pos_++];
                    break;
                default:
                    buf_[target++] = buf_[pos_++];
                    break;
            }
        } while (cur() != '\0' && !is_space(cur()));
    done:
        if (cur() != '\0' && skip_separator) step();
        // libuci terminates the word in place; when nothing shrank it, the
        // terminator lands on the ';' and the line ends there.
        if (!skip_separator && target == pos_) cut_line();
        return true;
    }

    // The next argument, empty when there is none.
    bool argument(bool required, WordKind kind, std::string_view& out) {
        skip_space();
        size_t start = pos_;
        size_t target = pos_;
        if (cur() == ';') {
            ++pos_;
        } else if (!word(target)) {
            return false;
        }
        out = std::string_view(buf_ + start, target - start);
        if (out.empty()) return !required;
        return valid_word(out, kind);
    }

    bool at_end_of_command() {
        skip_space();
        std::string_view extra;
        return argument(false, WordKind::kValue, extra) && extra.empty();
    }

    bool parse_line() {
        skip_space();
        for (;;) {
            while (cur() == ' ' || cur() == '\t') ++pos_;
            if (cur() == '\0') return true;
            size_t start = pos_;
            while (cur() != '\0' && cur() != ' ' && cur() != '\t') step();
            std::string_view command(buf_ + start, pos_ - start);
            if (command[0] == '#') {
                cut_line();
                return true;
            }
            bool known = command == "package" || command == "p" || command == "config" ||
                         command == "c" || command == "option" || command == "o" ||
                         command == "list" || command == "l";
            if (!known) return false;
            bool is_option = command[0] == 'o' || command[0] == 'l';
            if (is_option && current_ == kNoSection) return false;
            if (cur() == '\0') return false;  // a command needs its arguments
            ++pos_;
            bool ok = command[0] == 'p'   ? package_line()
                      : command[0] == 'c' ? config_line()
                                          : option_line(command[0] == 'l');
            if (!ok) return false;
        }
    }

    bool package_line() {
        std::string_view name;
        return argument(true, WordKind::kPackageName, name) && at_end_of_command();
    }

    bool config_line() {
        std::string_view type, name;
        if (!argument(true, WordKind::kType, type)) return false;
        if (!argument(false, WordKind::kName, name)) return false;
        if (!at_end_of_command()) return false;
        if (!name.empty()) {
            for (size_t i = 0; i < package_.sections.size(); ++i) {
                if (package_.sections[i].name != name) continue;
                if (package_.sections[i].type != type) return false;
                current_ = i;
                return true;
            }
        }
        package_.sections.push_back(UciSection{type, name, {}});
        current_ = package_.sections.size() - 1;
        return true;
    }

    bool option_line(bool is_list) {
        std::string_view name, value;
        if (!argument(true, WordKind::kName, name)) return false;
        if (!argument(false, WordKind::kValue, value)) return false;
        if (!at_end_of_command()) return false;
        UciSection& section = package_.sections[current_];
        if (is_list) {
            add_list_item(section, uci_find_option(section, name), name, value);
        } else if (!value.empty()) {
            // An empty value while reading changes nothing, as in libuci.
            uci_set_option(section, name, value);
        }
        return true;
    }

    static void add_list_item(UciSection& section, UciOption* option, std::string_view name,
                              std::string_view value) {
        if (!option) {
            section.options.push_back(UciOption{name, {}, {value}, true});
            return;
        }
        if (!option->is_list) {
            option->items.assign({option->value, value});
            option->value = {};
            option->is_list = true;
            return;
        }
        option->items.push_back(value);
    }

    char* buf_;
    size_t len_;
    size_t pos_ = 0;
    bool line_ended_ = false;
    size_t current_ = kNoSection;
    UciPackage& package_;
};

// libuci's escape for writing: every ' becomes '\'' .
void append_escaped(std::string& out, std::string_view text) {
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
}

void append_quoted(std::string& out, std::string_view text) {
    out += '\'';
    append_escaped(out, text);
    out += '\'';
}

// libuci writes the section type unquoted, which breaks a type holding a
// character that means something to the parser; such a type is quoted here,
// so a commit never turns a readable file into an unreadable one.
void append_type(std::string& out, std::string_view type) {
    if (type.find_first_of("'\"\\#;") == std::string_view::npos)
        out += type;
    else
        append_quoted(out, type);
}

}  // namespace

bool uci_parse(std::string& text, UciPackage& package) {
    Parser parser(text, package);
    return parser.run();
}

void uci_serialize(const UciPackage& package, std::string& out) {
    out.clear();
    for (const UciSection& section : package.sections) {
        out += "\nconfig ";
        append_type(out, section.type);
        if (!section.name.empty()) {
            out += ' ';
            append_quoted(out, section.name);
        }
        out += '\n';
        for (const UciOption& option : section.options) {
            if (!option.is_list) {
                out += "\toption ";
                append_escaped(out, option.name);
                out += ' ';
                append_quoted(out, option.value);
                out += '\n';
                continue;
            }
            for (std::string_view item : option.items) {
                out += "\tlist ";
                append_escaped(out, option.name);
                out += ' ';
                append_quoted(out, item);
                out += '\n';
            }
        }
    }
    out += '\n';
}

bool uci_valid_name(std::string_view name) {
    return !name.empty() && valid_word(name, WordKind::kName);
}

bool uci_valid_package_name(std::string_view name) {
    if (name.empty()) return false;
    for (char c : name) {
        if (!is_printable_word_char(c)) return false;
    }
    return true;
}

UciSection* uci_find_section(UciPackage& package, std::string_view name) {
    if (name.empty()) return nullptr;
    for (UciSection& section : package.sections) {
        if (section.name == name) return &section;
    }
    return nullptr;
}

UciOption* uci_find_option(UciSection& section, std::string_view name) {
    for (UciOption& option : section.options) {
        if (option.name == name) return &option;
    }
    return nullptr;
}

void uci_set_option(UciSection& section, std::string_view name, std::string_view value) {
    UciOption* option = uci_find_option(section, name);
    if (value.empty()) {
        if (option) section.options.erase(section.options.begin() + (option - section.options.data()));
        return;
    }
    if (!option) {
        section.options.push_back(UciOption{name, value, {}, false});
        return;
    }
    option->is_list = false;
    option->items.clear();
    option->value = value;
}

}  // namespace cbsd::config
