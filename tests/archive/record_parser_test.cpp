// The unpack stream's parser alone, in-process: hand-made records in, what it hands over out.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "archive/local_record_parser.h"
#include "archive_support.h"
#include "common/bytes.h"
#include "platform/platform.h"

namespace {

using namespace archivetest;

// A zstd frame that declares a window of 2^windowLog bytes instead of its content size and holds
// the data in one raw block.
Bytes zstdWithWindow(const std::string& data, int windowLog) {
    Bytes out;
    bytes::Writer(out).u32(0xFD2FB528).u8(0).u8(static_cast<std::uint8_t>((windowLog - 10) << 3))
        .u16(static_cast<std::uint16_t>(data.size() << 3 | 1)).u8(static_cast<std::uint8_t>(data.size() >> 13)).raw(data);
    return out;
}

// One entry of each kind the parser reads.
std::vector<HandEntry> mixedEntries() {
    return {
        {.name = "dir/", .data = ""},
        {.name = "dir/stored.txt", .data = "stored content\n"},
        {.name = "empty.txt", .data = "", .descriptor = true},
        {.name = "dir/deflated.txt", .data = repeatText(70000), .method = 8},
        {.name = "described.txt", .data = repeatText(3000), .method = 8, .descriptor = true},
        {.name = "zstd.txt", .data = repeatText(50000), .method = 93},
        {.name = "zstd-described.txt", .data = repeatText(100), .method = 93, .descriptor = true},
        // The largest window allowed: 8 MiB.
        {.name = "zstd-window.txt", .data = repeatText(10000), .method = 93,
         .payload = zstdWithWindow(repeatText(10000), 23)},
        {.name = "big64.txt", .data = repeatText(5000), .method = 8, .descriptor = true, .zip64 = true},
        {.name = "stored64.txt", .data = "zip64 sizes\n", .zip64 = true},
    };
}

// Records what the parser hands over as a tree image, through a room of an odd, small size;
// fails (as extraction would) when the entry named `failOn` begins.
struct Recorder : RecordSink {
    TreeImage image;
    std::string current;
    std::string failOn;
    std::uint8_t block[777];
    bool directory(const LocalEntry&, const std::string& path) override {
        image[path + "/"];
        return true;
    }
    bool beginFile(const LocalEntry&, const std::string& path, bool) override {
        current = path;
        image[path];
        return path != failOn;
    }
    std::span<std::uint8_t> room() override { return block; }
    bool fill(std::size_t count) override {
        image[current].append(reinterpret_cast<char*>(block), count);
        return true;
    }
    bool endFile() override { return true; }
};

struct Parsed {
    TreeImage image;
    std::int32_t failure = 0;  // the first negative result but the end of the archive
    std::string failureText;
    LocalRecordParser::State state = LocalRecordParser::kExpectHeader;
};

Parsed parse(const Bytes& archive, const Chunker& chunker, const std::string& failOn = "") {
    LocalRecordParser parser;
    Recorder sink;
    sink.failOn = failOn;
    Parsed out;
    EXPECT_EQ(parser.start(), MZ_OK);
    for (std::size_t at = 0; at < archive.size();) {
        const std::size_t n = std::min(chunker(), archive.size() - at);
        const std::int32_t rc = parser.write(std::span(archive).subspan(at, n), sink);
        at += n;
        if (rc == MZ_END_OF_STREAM) break;
        if (rc < 0) {
            out.failure = rc;
            out.failureText = platform::errorText(parser.systemError());
            break;
        }
        EXPECT_EQ(rc, static_cast<std::int32_t>(n));
    }
    out.image = std::move(sink.image);
    out.state = parser.state();
    return out;
}

TEST(RecordParser, HandsOverEveryKindAtAnyChunking) {
    const auto entries = mixedEntries();
    const Bytes archive = buildArchive(entries);
    TreeImage expected;
    for (const auto& e : entries) expected[e.name] = e.data;
    std::vector<Chunker> chunkers = {fixedChunks(1), fixedChunks(3), fixedChunks(29), randomChunks(7, 5000)};
    // Two writes, cut at every offset near the ends and at every 89th one in between.
    for (std::size_t cut = 1; cut < archive.size(); cut += (cut < 100 || archive.size() - cut < 100) ? 1 : 89)
        chunkers.push_back([cut, first = true]() mutable { return std::exchange(first, false) ? cut : SIZE_MAX; });
    for (std::size_t i = 0; i < chunkers.size(); ++i) {
        const Parsed parsed = parse(archive, chunkers[i]);
        ASSERT_EQ(parsed.failure, 0) << "chunking " << i;
        ASSERT_EQ(parsed.state, LocalRecordParser::kEnd) << "chunking " << i;
        ASSERT_EQ(parsed.image, expected) << "chunking " << i;
    }
}

TEST(RecordParser, NamesResolveBelowTheTarget) {
    const std::pair<std::string, std::string> cases[] = {
        {"../evil.txt", "evil.txt"},     {"a/../../../b/../../y.txt", "y.txt"}, {"/etc/abs.txt", "etc/abs.txt"},
        {"//double//slash.txt", "double/slash.txt"}, {"..\\..\\back.txt", "back.txt"}, {"dir\\sub\\win.txt", "dir/sub/win.txt"},
        {"./here/./dot.txt", "here/dot.txt"}, {"../../up/", "up/"},           {"windows\\", "windows/"},
    };
    std::vector<HandEntry> entries;
    TreeImage expected;
    for (const auto& [name, path] : cases) {
        entries.push_back({.name = name, .data = path.back() == '/' ? "" : path});
        expected[path] = entries.back().data;
    }
    EXPECT_EQ(parse(buildArchive(entries), fixedChunks(7)).image, expected);
}

TEST(RecordParser, BadRecordsFailWithTheirOwnCodeAndText) {
    const std::string text = repeatText(10000);
    const auto entry = [](const HandEntry& e, std::size_t at = 0, std::uint64_t value = 0, int width = 0) {
        Bytes b;
        appendEntry(b, e);
        for (int i = 0; i < width; ++i) b[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
        return b;
    };
    const char* damaged = "Bad message";
    const std::tuple<const char*, Bytes, std::int32_t, const char*> cases[] = {
        {"crc", entry({.name = "crc", .data = text, .method = 8, .crc = 0x12345678}), MZ_CRC_ERROR, damaged},
        {"crc-described", entry({.name = "c", .data = text, .method = 8, .descriptor = true, .crc = 1}), MZ_CRC_ERROR, damaged},
        {"method 12", entry({.name = "m12", .data = "payload", .method = 12}), MZ_SUPPORT_ERROR, "Operation not supported"},
        {"deflate", entry({.name = "d", .data = "abc", .method = 8, .payload = toBytes("\xff\xff\xff no deflate")}), -3, damaged},
        {"zstd", entry({.name = "z", .data = "abc", .method = 93, .payload = toBytes("this is no zstd frame")}), -2, damaged},
        // A 16 MiB window is more than the parser accepts.
        {"window", entry({.name = "w", .data = text, .method = 93, .payload = zstdWithWindow(text, 24)}), -2,
         "Cannot allocate memory"},
        // An empty stored entry without the descriptor flag still waits for a descriptor.
        {"empty", entry({.name = "empty"}), MZ_FORMAT_ERROR, damaged},
        // Lengths that lie: deflate data one byte short of its header's size, sizes beyond a
        // signed 64-bit value in a zip64 record and descriptor, stored sizes that run into the
        // next record.
        {"short", entry({.name = "short", .data = text, .method = 8}, 22, text.size() + 1, 4), MZ_FORMAT_ERROR, damaged},
        {"huge64", entry({.name = "huge", .data = "x", .zip64 = true}, 30 + 4 + 4, 1ull << 63, 8), MZ_FORMAT_ERROR, damaged},
        {"huge64-descriptor", entry({.name = "h", .data = "x", .method = 8, .descriptor = true, .zip64 = true}, 30 + 1 + 20 + 3 + 16, 1ull << 63, 8),
         MZ_FORMAT_ERROR, damaged},
        {"overlong", entry({.name = "o", .data = "abc"}, 18, (43ull << 32) | 43, 8), MZ_CRC_ERROR, damaged},
        {"not a record", toBytes("garbage that is not a zip archive"), MZ_FORMAT_ERROR, damaged},
        {"..", entry({.name = ".."}), MZ_INTERNAL_ERROR, "Operation not permitted"},
        {"no name", entry({.name = ""}), MZ_INTERNAL_ERROR, damaged},
    };
    for (const auto& [label, bad, code, failureText] : cases) {
        // A record follows, so that the parser has bytes to judge; it is never handed over.
        Bytes archive = bad;
        appendEntry(archive, {.name = "next.txt", .data = std::string(100, 'n')});
        const Parsed parsed = parse(archive, fixedChunks(archive.size()));
        EXPECT_EQ(parsed.failure, code) << label;
        EXPECT_EQ(parsed.failureText, failureText) << label;
        EXPECT_FALSE(parsed.image.contains("next.txt")) << label;
    }
    // A sink that fails stops the parser at once: nothing after it is handed over.
    const Parsed stopped = parse(buildArchive(mixedEntries()), fixedChunks(100), "dir/stored.txt");
    EXPECT_EQ(stopped.image, (TreeImage{{"dir/", ""}, {"dir/stored.txt", ""}}));
}

TEST(RecordParser, ADataDescriptorCutByTheChunkBorderWaits) {
    // An entry whose descriptor signature is wrong, followed by other bytes: the parser can only
    // tell once it holds the 24 bytes a zip64 descriptor may take.
    Bytes archive;
    appendEntry(archive, {.name = "d.txt", .data = "descriptor data", .method = 8, .descriptor = true});
    const std::size_t descriptorAt = archive.size() - 16;
    archive[descriptorAt] = 'X';
    archive.resize(archive.size() + 40, 'T');
    for (const std::size_t left : {1, 16, 24, 25, 40}) {
        LocalRecordParser parser;
        Recorder sink;
        ASSERT_EQ(parser.start(), MZ_OK);
        const std::int32_t expected = left <= 24 ? static_cast<std::int32_t>(descriptorAt + left) : MZ_FORMAT_ERROR;
        EXPECT_EQ(parser.write(std::span(archive).first(descriptorAt + left), sink), expected) << left;
        // A failure is returned again by every later write.
        if (expected < 0) {
            EXPECT_EQ(parser.write(std::span(archive).first(1), sink), expected) << left;
        }
    }
}

}  // namespace
