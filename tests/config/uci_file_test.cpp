// The UCI file parser and writer.
#include "config/uci_file.h"

#include <gtest/gtest.h>

#include <string>

namespace cbsd::config {
namespace {

// The content as libuci would write it back, or "REFUSED".
std::string reparse(std::string text) {
    UciPackage package;
    if (!uci_parse(text, package)) return "REFUSED";
    std::string out;
    uci_serialize(package, out);
    return out;
}

std::string value_of(std::string text, const char* section, const char* option) {
    UciPackage package;
    if (!uci_parse(text, package)) return "REFUSED";
    UciSection* found = uci_find_section(package, section);
    UciOption* value = found ? uci_find_option(*found, option) : nullptr;
    if (!value) return "ABSENT";
    return value->is_list ? "LIST" : std::string(value->value);
}

TEST(UciFileTest, QuotingStyles) {
    EXPECT_EQ(value_of("config t s\noption a plain\n", "s", "a"), "plain");
    EXPECT_EQ(value_of("config t s\noption a 'single \"q\" \\n'\n", "s", "a"), "single \"q\" \\n");
    EXPECT_EQ(value_of("config t s\noption a \"double 'q' \\\" \\\\ \\x\"\n", "s", "a"),
              "double 'q' \" \\ x");
    EXPECT_EQ(value_of("config t s\noption a 'it'\\''s'\n", "s", "a"), "it's");
    EXPECT_EQ(value_of("config t s\noption a un\\ quoted\n", "s", "a"), "un quoted");
    EXPECT_EQ(value_of("config t s\noption a 'ab'\"cd\"ef\n", "s", "a"), "abcdef");
}

TEST(UciFileTest, QuotedValuesMaySpanLines) {
    EXPECT_EQ(value_of("config t s\noption a 'one\ntwo'\n", "s", "a"), "one\ntwo");
    EXPECT_EQ(value_of("config t s\noption a \"one\ntwo\"\n", "s", "a"), "one\ntwo");
    EXPECT_EQ(value_of("config t s\noption a \"one\\\ntwo\"\n", "s", "a"), "onetwo");
    EXPECT_EQ(value_of("config t s\noption a one\\\ntwo\n", "s", "a"), "onetwo");
}

TEST(UciFileTest, CommentsAndBlankLines) {
    EXPECT_EQ(reparse("# head\n\n   \t\nconfig t s # after\n\t# inside\n\toption a 'x' # tail\n"),
              "\nconfig t 's'\n\toption a 'x'\n\n");
    EXPECT_EQ(value_of("config t s\noption a x#y\n", "s", "a"), "x");
    EXPECT_EQ(value_of("config t s\noption a 'x#y'\n", "s", "a"), "x#y");
}

TEST(UciFileTest, AbbreviatedCommandsAndPackageLine) {
    EXPECT_EQ(reparse("package sas\nc t s\no a 1\nl b 2\n"),
              "\nconfig t 's'\n\toption a '1'\n\tlist b '2'\n\n");
}

TEST(UciFileTest, SemicolonSeparatesCommands) {
    EXPECT_EQ(reparse("config t s\noption a 1 ; option b 2\n"),
              "\nconfig t 's'\n\toption a '1'\n\toption b '2'\n\n");
    // As in libuci, a ';' right after an unquoted word ends the line there.
    EXPECT_EQ(reparse("config t s\noption a 1; option b 2\n"), "\nconfig t 's'\n\toption a '1'\n\n");
}

TEST(UciFileTest, WindowsLineEndsAreRead) {
    EXPECT_EQ(reparse("config t s\r\n\toption a 'b'\r\n"), "\nconfig t 's'\n\toption a 'b'\n\n");
}

TEST(UciFileTest, SectionsOfTheSameNameMerge) {
    EXPECT_EQ(reparse("config t s\noption a 1\noption b 2\nconfig u v\nconfig t s\noption a 3\n"),
              "\nconfig t 's'\n\toption a '3'\n\toption b '2'\n\nconfig u 'v'\n\n");
}

TEST(UciFileTest, EmptyValueWhileReadingChangesNothing) {
    EXPECT_EQ(value_of("config t s\noption a 'x'\noption a ''\n", "s", "a"), "x");
    EXPECT_EQ(value_of("config t s\noption a\n", "s", "a"), "ABSENT");
}

TEST(UciFileTest, ListsAndOptionsReplaceEachOther) {
    EXPECT_EQ(reparse("config t s\noption a 1\nlist a 2\n"),
              "\nconfig t 's'\n\tlist a '1'\n\tlist a '2'\n\n");
    EXPECT_EQ(reparse("config t s\nlist a 1\nlist a ''\noption a 3\n"),
              "\nconfig t 's'\n\toption a '3'\n\n");
    EXPECT_EQ(value_of("config t s\nlist a 1\n", "s", "a"), "LIST");
}

TEST(UciFileTest, AnonymousSectionsAreKeptWithoutAName) {
    UciPackage package;
    std::string text = "config t\noption a 1\nconfig t\noption a 2\n";
    ASSERT_TRUE(uci_parse(text, package));
    EXPECT_EQ(package.sections.size(), 2u);
    EXPECT_EQ(uci_find_section(package, ""), nullptr);
}

TEST(UciFileTest, FilesLibuciRefusesAreRefused) {
    const char* refused[] = {
        "option a b\n",                              // option before any section
        "config t s\nfoo bar\n",                     // unknown command
        "config\n",                                  // command without arguments
        "config t s\noption\n",                      //
        "config t s\noption 'a b' c\n",              // bad option name
        "config t 'a-b'\n",                          // bad section name
        "config t s extra\n",                        // too many arguments
        "config t s\noption a b c\n",                //
        "config t s\noption a 'open\n",              // unterminated quotes
        "config t s\noption a \"open\n",             //
        "config t s\noption a \"open\\",             //
        "config t s\nconfig u s\n",                  // same name, other type
        "package 'a b'\n",                           // bad package name
        "config ''\n",                               // empty type
        "config t s\noption '' x\n",                 // empty option name
        "config t s\noption a\x01 x\n",              // control character in a name
        "config",                                    // command at the end of the file
    };
    for (const char* text : refused) EXPECT_EQ(reparse(text), "REFUSED") << text;
}

TEST(UciFileTest, NulByteMakesTheFileUnreadable) {
    static const char text[] = "config t s\n\toption a 'b'\0\n";
    EXPECT_EQ(reparse(std::string(text, sizeof text - 1)), "REFUSED");
}

TEST(UciFileTest, EmptyFileIsAnEmptyPackage) {
    EXPECT_EQ(reparse(""), "\n");
    EXPECT_EQ(reparse("# nothing\n\n"), "\n");
}

TEST(UciFileTest, WriterQuotesEveryValueAndEscapesQuotes) {
    UciPackage package;
    package.sections.push_back(UciSection{"sas", "config", {}});
    uci_set_option(package.sections[0], "address", "it's");
    uci_set_option(package.sections[0], "status", "x");
    std::string out;
    uci_serialize(package, out);
    EXPECT_EQ(out, "\nconfig sas 'config'\n\toption address 'it'\\''s'\n\toption status 'x'\n\n");
    EXPECT_EQ(value_of(out, "config", "address"), "it's");
}

TEST(UciFileTest, TypeThatWouldNotReadBackIsQuoted) {
    EXPECT_EQ(reparse("config \"a#b\" s\n"), "\nconfig 'a#b' 's'\n\n");
    EXPECT_EQ(reparse("config 'a#b' s\n"), reparse(reparse("config 'a#b' s\n")));
}

TEST(UciFileTest, SetUpdatesInPlaceAndEmptyRemoves) {
    UciPackage package;
    std::string text = "config t s\noption a 1\noption b 2\n";
    ASSERT_TRUE(uci_parse(text, package));
    uci_set_option(package.sections[0], "a", "9");
    uci_set_option(package.sections[0], "b", "");
    uci_set_option(package.sections[0], "c", "");
    std::string out;
    uci_serialize(package, out);
    EXPECT_EQ(out, "\nconfig t 's'\n\toption a '9'\n\n");
}

TEST(UciFileTest, NameRules) {
    struct NameCase {
        const char* name;
        bool valid;
    };
    for (NameCase c : {NameCase{"RadioEnable_2", true}, {"", false}, {"a-b", false}, {"a.b", false}})
        EXPECT_EQ(uci_valid_name(c.name), c.valid) << "option '" << c.name << "'";
    for (NameCase c : {NameCase{"sas_cache", true}, {"a-b.c", true}, {"a b", false}, {"", false}})
        EXPECT_EQ(uci_valid_package_name(c.name), c.valid) << "package '" << c.name << "'";
}

}  // namespace
}  // namespace cbsd::config
