// The in-process filter against the real `grep` it replaced: the same bytes
// go through `sh -c 'grep ... < file'` into the daemon's command runner (the
// old path, with its buffer size) and through LineFilter into a buffer of the
// same size, and the two buffers must be equal byte for byte.  grep runs in
// the C locale, the daemon's under procd (no LANG).
#include "base/system.h"
#include "modem/line_filter.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace cbsd::modem {
namespace {

constexpr const char* kReplyFile = "/tmp/modem-reply";

struct Grep {
    const char* pattern;
    bool whole_word;
    int capacity;  // the buffer the query always used
};

// Every query the daemon filters, with its own buffer size.
const Grep kGreps[] = {
    {"dlfreq", false, 64},    {"bandwidth", false, 63}, {"band", true, 63},
    {"netstat", false, 1024}, {"productmodule", false, 1024}, {"SN", false, 1024},
};

std::string buffer_of(const std::vector<char>& buffer) { return {buffer.begin(), buffer.end()}; }

// The old path: the command runner over a grep pipeline.
std::string real_grep(const Grep& grep, const std::string& reply) {
    test::write_file(kReplyFile, reply);
    std::string command = std::string("LC_ALL=C grep ") + (grep.whole_word ? "-w " : "") +
                          grep.pattern + " < " + kReplyFile + " 2>/dev/null";
    std::vector<char> buffer(static_cast<size_t>(grep.capacity), '\0');
    base::run_command(command.c_str(), buffer.data(), grep.capacity);
    return buffer_of(buffer);
}

// The reply fed in pieces of `chunk` bytes, as a pipe may hand it over.
std::string filtered(const Grep& grep, const std::string& reply, size_t chunk) {
    std::vector<char> buffer(static_cast<size_t>(grep.capacity), '\0');
    LineFilter filter(grep.pattern, grep.whole_word, buffer.data(), grep.capacity);
    for (size_t at = 0; at < reply.size(); at += chunk)
        filter.feed(reply.data() + at, std::min(chunk, reply.size() - at));
    filter.finish();
    return buffer_of(buffer);
}

std::string printable(const std::string& text) {
    std::string out;
    for (unsigned char c : text.substr(0, 300)) {
        if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            char code[8];
            std::snprintf(code, sizeof code, "\\x%02x", c);
            out += code;
        }
    }
    return out;
}

void expect_same_as_grep(const std::string& reply) {
    for (const Grep& grep : kGreps) {
        std::string expected = real_grep(grep, reply);
        for (size_t chunk : {size_t{1}, size_t{7}, size_t{512}, reply.size() + 1}) {
            EXPECT_EQ(filtered(grep, reply, chunk), expected)
                << (grep.whole_word ? "-w " : "") << grep.pattern << " chunk " << chunk
                << " over: " << printable(reply);
        }
    }
}

std::string with_nul(const std::string& before, const std::string& after) {
    return before + std::string(1, '\0') + after;
}

const char* const kModemReply =
    "{\n\t\"productmodule\": \"RQ5518L\",\n\t\"SN\": \"SN42\",\n\t\"netstat\": 4,\n"
    "\t\"earfcn\": 55990,\n\t\"dlfreq\": 3625000,\n\t\"bandwidth\": 20,\n\t\"band\": 48,\n}\n";

TEST(LineFilter, OrdinaryReplies) {
    expect_same_as_grep(kModemReply);
    expect_same_as_grep("");
    expect_same_as_grep("\n\n\n");
    expect_same_as_grep("{\n}\n");
    expect_same_as_grep("Command failed: Not found\n");
}

TEST(LineFilter, EveryMatchingLineIsKeptInOrder) {
    expect_same_as_grep("dlfreq: 1,\nx\ndlfreq: 2,\nbandwidth 3\ndlfreq: 4\nband 5\nband 6\n");
    expect_same_as_grep("\"band\": 48,\n\"band\": 43,\n\"band\": 7,\n");
}

TEST(LineFilter, LastLineWithoutNewlineGetsOne) {
    expect_same_as_grep("\t\"dlfreq\": 3625000,\n\t\"band\": 4");
    expect_same_as_grep("\t\"bandwidth\": 2");
    expect_same_as_grep("x\nSN");
}

TEST(LineFilter, WholeWordRules) {
    for (const char* line :
         {"bandwidth: 20", "band: 48", "\"band\": 48", "band", "band48", "48band", "_band",
          "band_", "1band", "bandband band", "bandband", "xband band", "band-width",
          "\tband\t", "bandbandband", "b and", "BAND: 1", "ban d", "bandwidth band",
          "\xc3\xa9" "band\xc3\xa9", "\xff" "band", "band\x80", "band\r"}) {
        expect_same_as_grep(std::string(line) + "\n");
        expect_same_as_grep(line);
    }
}

TEST(LineFilter, PatternsAcrossEveryPosition) {
    expect_same_as_grep("SNSN\nxSN\nS\nN\nSN\nsn\n");
    expect_same_as_grep("netstatnetstat: 1\nnet stat\nnetsta\n");
    expect_same_as_grep("dlfre\nq dlfreq\n dlfreqdlfreq\n");
}

TEST(LineFilter, LongLinesAndLongOutput) {
    for (size_t length : {62, 63, 64, 254, 255, 256, 1022, 1023, 1024, 1279, 1280, 3000, 10240}) {
        std::string filler(length, '7');
        expect_same_as_grep("\t\"dlfreq\": " + filler + ",\n\t\"band\": " + filler + "\n");
        expect_same_as_grep(filler + "band\n" + filler + " band " + filler + "\n");
        expect_same_as_grep("\t\"productmodule\": \"" + filler + "\",\n\tSN " + filler + "\n");
    }
    std::string many;
    for (int i = 0; i < 400; ++i) many += "\tdlfreq band bandwidth netstat SN " + std::to_string(i) + "\n";
    expect_same_as_grep(many);
    expect_same_as_grep(std::string(20000, 'x') + "\n" + kModemReply);
}

TEST(LineFilter, NulBytesSilenceTheOutput) {
    expect_same_as_grep(with_nul("", kModemReply));
    expect_same_as_grep(with_nul(kModemReply, ""));
    expect_same_as_grep(with_nul("\t\"band", "\": 48,\n"));
    expect_same_as_grep(with_nul("x\n", "\ndlfreq: 1\n"));
    std::string every_byte;
    for (int i = 0; i < 256; ++i) every_byte += static_cast<char>(i);
    expect_same_as_grep(every_byte + "band:\n");
    expect_same_as_grep(every_byte + every_byte);
}

TEST(LineFilter, BytesAboveAsciiArePlainBytes) {
    expect_same_as_grep("\xff\xfe\tdlfreq: 3625000,\n\xc3\x28 band \xa0\n");
    std::string high;
    for (int i = 1; i < 256; ++i)
        if (i != '\n') high += static_cast<char>(i);
    expect_same_as_grep(high + "band:" + high + "\n" + high + "\n");
}

// A reply the time limit cut short: grep's pipe output had gone out only in
// 4096-byte blocks, the rest died with the pipeline.
TEST(LineFilter, ReplyCutShortKeepsOnlyWhatGrepHadFlushed) {
    char buffer[64] = {};
    LineFilter short_reply("dlfreq", false, buffer, sizeof buffer);
    short_reply.feed("\t\"dlfreq\": 3625000,\n", 20);
    short_reply.cut_short();
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(sizeof buffer, '\0'));

    char kept[64] = {};
    LineFilter long_reply("dlfreq", false, kept, sizeof kept);
    std::string line = "dlfreq: 1,\n";
    for (int i = 0; i < 400; ++i) long_reply.feed(line.data(), line.size());  // 4400 bytes
    long_reply.cut_short();
    std::string ten_lines;
    for (int i = 0; i < 10; ++i) ten_lines += line;
    EXPECT_EQ(std::string(kept, sizeof kept), real_grep({"dlfreq", false, 64}, ten_lines));
    EXPECT_NE(kept[0], '\0');
}

}  // namespace
}  // namespace cbsd::modem
