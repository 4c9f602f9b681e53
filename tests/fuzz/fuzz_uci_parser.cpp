// Feeds arbitrary bytes to the UCI file parser.  Whatever it accepts must
// survive a commit: the written form parses again to the same content and
// writes the same bytes.
#include "config/uci_file.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

using namespace cbsd::config;

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

bool same_content(const UciPackage& a, const UciPackage& b) {
    if (a.sections.size() != b.sections.size()) return false;
    for (size_t i = 0; i < a.sections.size(); ++i) {
        const UciSection& x = a.sections[i];
        const UciSection& y = b.sections[i];
        if (x.type != y.type || x.name != y.name || x.options.size() != y.options.size()) return false;
        for (size_t j = 0; j < x.options.size(); ++j) {
            const UciOption& p = x.options[j];
            const UciOption& q = y.options[j];
            if (p.name != q.name || p.is_list != q.is_list || p.value != q.value || p.items != q.items)
                return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    UciPackage package;
    if (!uci_parse(text, package)) return 0;

    for (UciSection& section : package.sections) {
        require(section.name.empty() || uci_valid_name(section.name));
        require(!section.type.empty());
        if (!section.name.empty()) require(uci_find_section(package, section.name) == &section);
        for (UciOption& option : section.options) {
            require(uci_valid_name(option.name));
            require(option.is_list || !option.value.empty());
            require(uci_find_option(section, option.name) == &option);
        }
    }

    std::string written;
    uci_serialize(package, written);
    std::string reread_text = written;
    UciPackage reread;
    require(uci_parse(reread_text, reread));
    require(same_content(package, reread));
    std::string rewritten;
    uci_serialize(reread, rewritten);
    require(rewritten == written);

    // A set into the first named section keeps the file readable.
    for (UciSection& section : package.sections) {
        if (section.name.empty()) continue;
        uci_set_option(section, "status", "it's \"set\"\n# ;");
        uci_serialize(package, written);
        reread_text = written;
        require(uci_parse(reread_text, reread));
        break;
    }
    return 0;
}
