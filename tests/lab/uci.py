"""Reads and writes single options of a UCI configuration file, as the
router's `uci` tool would, for tests that prepare or inspect /etc/config/sas
or /tmp/sas_cache.  Sections are found by name ("config <type> '<name>'")."""
import shlex


def quote(value):
    return "'" + value.replace("'", "'\\''") + "'"


def _words(line):
    try:
        return shlex.split(line, comments=True)
    except ValueError:
        return []


def _section_name(words):
    # An unnamed section has no second word; it can never match a name.
    return words[2] if len(words) >= 3 else None


def get(text, section, option):
    """The option's value, or None when the section or option is absent."""
    current = None
    value = None
    for line in text.splitlines():
        words = _words(line)
        if not words:
            continue
        if words[0] == "config":
            current = _section_name(words)
        elif words[0] == "option" and current == section and len(words) >= 2 and \
                words[1] == option:
            value = words[2] if len(words) >= 3 else ""
    return value


def set(text, section, option, value):  # noqa: A001 - named after `uci set`
    """The file text with the option set; a missing section is appended as
    `config <section> '<section>'`."""
    lines = text.splitlines()
    current = None
    section_end = None
    new_line = f"\toption {option} {quote(value)}"
    for index, line in enumerate(lines):
        words = _words(line)
        if words and words[0] == "config":
            current = _section_name(words)
        if current != section or not words:
            continue
        section_end = index
        if words[0] == "option" and len(words) >= 2 and words[1] == option:
            lines[index] = new_line
            return "\n".join(lines) + "\n"
    if section_end is None:
        if lines and lines[-1].strip():
            lines.append("")
        lines += [f"config {section} {quote(section)}", new_line]
    else:
        lines.insert(section_end + 1, new_line)
    return "\n".join(lines) + "\n"
