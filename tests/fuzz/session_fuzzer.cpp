// Feeds arbitrary sequences of the far side's events to the session's dispatch, in a session the
// far side drives or a command-line run, against a wire that encodes every answer, and checks
// after every event that nothing outside the scratch directory was created, changed or removed.
//
// The input is read as records. Every name an event carries lies below the scratch directory
// (built from a small alphabet, with ".zip" endings, NUL bytes and trailing separators), since
// the far side may name any path of the user's; length fields are exact, zero or claim more than
// the event holds. A chunk carries input bytes or the block of the last reply, so archives the
// session packed come back to be unpacked.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "common/bytes.h"
#include "common/options.h"
#include "filetransfer/dispatch.h"
#include "filetransfer/protocol.h"
#include "filetransfer/session.h"
#include "filetransfer/wire.h"
#include "outside.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kExtension = 140;

// Encodes every request as the far side would receive it; keeps the last reply's block.
class EncodingWire : public Wire {
public:
    Bytes lastBlock;
    std::size_t bytesSent = 0;

protected:
    void writeReply(const TransferHeader& header, std::span<const std::uint8_t> data) override {
        bytesSent += encodeFileTransferReply(kExtension, header, data).size();
        lastBlock.assign(data.begin(), data.end());
    }
    void writeStatus(std::string_view path, std::uint8_t kind, bool failed, std::string_view error) override {
        bytesSent += encodeFileTransferStatus(kExtension, kind, failed, path, error).size();
    }
    void writeListItem(const FileListItemFields& item) override { bytesSent += encodeFileListItem(kExtension, item).size(); }
    void writeFlush() override {}
};

// The scratch directory every name of the events lies below, and the working directory an empty
// or relative path would reach, holding one file that must stay.
struct Place {
    fs::path outer = outside::makePlace("varoft-session-fuzz");
    fs::path scratch = outer / "scratch", cwd = outer / "cwd", victim = outer / "victim";
    Place() {
        fs::create_directory(scratch);
        fs::create_directory(cwd);
        outside::writeText(victim);
        outside::writeText(cwd / "keep");
        if (::chdir(cwd.c_str()) != 0) std::abort();
    }
};

Place& place() {
    static Place p;
    return p;
}

void checkOutside(const Place& p) {
    outside::check(p.outer, {p.scratch, p.cwd, p.victim}, {p.victim, p.cwd / "keep"});
    outside::check(p.cwd, {p.cwd / "keep"}, {});
    std::error_code ec;
    if (!fs::is_directory(fs::symlink_status(p.scratch, ec))) outside::touched(p.scratch);
}

void emptyScratch(const Place& p) {
    std::error_code ec;
    fs::permissions(p.scratch, fs::perms::owner_all, ec);
    for (const auto& entry : fs::recursive_directory_iterator(p.scratch, ec))
        if (entry.is_directory(ec)) fs::permissions(entry.path(), fs::perms::owner_all, ec);
    for (const auto& entry : fs::directory_iterator(p.scratch, ec)) fs::remove_all(entry.path(), ec);
}

struct Input {
    const std::uint8_t* data;
    std::size_t size;
    std::uint8_t byte() {
        if (size == 0) return 0;
        --size;
        return *data++;
    }
};

// A name below the scratch directory, or none.
std::string name(Input& in, const std::string& root) {
    const std::uint8_t shape = in.byte();
    if (shape % 8 == 0) return {};
    std::string out = root;
    for (int part = 0; part <= shape % 3; ++part) {
        const std::uint8_t c = in.byte();
        out += '/';
        out += "abc"[c % 3];
        if (c & 4) out += 'd';
        if (c & 8) out += ".zip";
        if (c & 16) out += std::string("\0q", 2);  // the name ends at the NUL
    }
    if (shape & 32) out += '/';
    return out;
}

// A length field: exact, zero (and the bytes left out) or more than the event holds.
struct Field {
    std::uint16_t length;
    std::string bytes;
};
Field field(Input& in, const std::string& text) {
    switch (in.byte() % 8) {
        case 0: return {0, {}};
        case 1: return {static_cast<std::uint16_t>(text.size() + 4096), text};
        default: return {static_cast<std::uint16_t>(text.size()), text};
    }
}

Bytes event(std::uint16_t type, const Bytes& payload, std::uint8_t extension = kExtension) {
    Bytes b;
    const std::size_t padded = payload.size() + bytes::pad4(payload.size());
    bytes::Writer(b).u8(kGenericEvent).u8(extension).u16(1).u32(static_cast<std::uint32_t>(padded / 4)).u16(type)
        .zeros(26).raw(payload).zeros(padded - payload.size());
    return b;
}

Bytes transferEvent(Input& in, const std::string& root, const EncodingWire& wire) {
    static constexpr std::uint8_t kObjects[] = {1, 1, 1, 6, 6, 2, 3, 0};
    static constexpr std::uint8_t kKinds[] = {0, 2, 4, 4, 4, 5, 5, 5, 7, 8, 8, 1, 9, 11, 3, 6};
    const std::uint8_t direction = in.byte() % 4;
    const std::uint8_t objectType = kObjects[in.byte() % 8];
    const std::uint8_t openFlag = in.byte() & 1;
    const std::uint8_t pick = in.byte();
    const std::uint8_t kind = pick < 250 ? kKinds[pick % 16] : static_cast<std::uint8_t>(13 + pick % 5);
    const std::uint64_t size = static_cast<std::uint64_t>(in.byte()) << (in.byte() % 40);
    const Field a = field(in, name(in, root)), b = field(in, name(in, root));
    Bytes data;
    const std::uint8_t source = in.byte();
    if (source % 4 == 0) {
        data = wire.lastBlock;  // an archive or file this session sent
    } else {
        for (std::size_t n = static_cast<std::size_t>(in.byte()) * 8; n > 0 && in.size > 0; --n) data.push_back(in.byte());
    }
    const bool lyingData = source % 16 == 1;
    Bytes payload;
    bytes::Writer(payload).u8(direction).u8(objectType).u8(openFlag).u8(kind).u64(size).u16(a.length).u16(b.length)
        .u32(static_cast<std::uint32_t>(data.size() + (lyingData ? 4096 : 0))).raw(a.bytes).raw(b.bytes).raw(data);
    return event(kTransferRequest, payload);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Place& p = place();
    Input in{data, size};
    const std::string root = p.scratch.string();
    Options options;
    static constexpr RunMode kModes[] = {RunMode::None, RunMode::None, RunMode::None, RunMode::None,
                                         RunMode::Get,  RunMode::Put,  RunMode::GetDir, RunMode::PutDir};
    options.runMode = kModes[in.byte() % 8];
    options.localPath = root + "/local";  // not there yet: no question is asked
    options.remotePath = "remote";
    EncodingWire wire;
    int status = 0;
    {
        Session session(options, wire);
        session.userHomeDir = root;
        Outcome outcome = options.runMode == RunMode::None ? Outcome::goOn() : startRun(session);
        while (!outcome.end && in.size > 0) {
            const std::uint8_t what = in.byte();
            Bytes ev;
            switch (what % 8) {
                case 0: case 1: case 2: case 3: ev = transferEvent(in, root, wire); break;
                case 4: {  // ListDirectoryRequest: listings only read, so ".." and relative names go too
                    const std::uint8_t shape = in.byte();
                    const std::string path = shape % 4 == 0 ? "" : shape % 4 == 1 ? ".." : shape % 4 == 2 ? "a" : name(in, root);
                    const Field f = field(in, path);
                    Bytes payload;
                    bytes::Writer(payload).u16(f.length).u16(0).raw(f.bytes);
                    ev = event(kListDirectoryRequest, payload);
                    break;
                }
                case 5: {
                    const Field f = field(in, name(in, root));
                    Bytes payload;
                    bytes::Writer(payload).u16(0).u16(f.length).raw(f.bytes);
                    ev = event(kDeleteFileRequest, payload);
                    break;
                }
                case 6: {
                    const Field from = field(in, name(in, root)), to = field(in, name(in, root));
                    Bytes payload;
                    bytes::Writer(payload).u16(from.length).u16(to.length).raw(from.bytes).raw(to.bytes);
                    ev = event(kRenameFileRequest, payload);
                    break;
                }
                default: {  // events the session does not serve: other types, other extensions, short ones
                    Bytes payload;
                    for (std::size_t n = in.byte() % 64; n > 0; --n) payload.push_back(in.byte());
                    std::uint16_t type = in.byte();
                    if (type == kDeleteFileRequest || type == kTransferRequest || type == kListDirectoryRequest ||
                        type == kRenameFileRequest)
                        type = 0;
                    ev = event(type, payload, what & 8 ? kExtension : static_cast<std::uint8_t>(in.byte() | 1));
                    if (what & 16) ev.resize(std::min<std::size_t>(ev.size(), in.byte() % 40));
                    if (what & 32 && !ev.empty()) ev[0] = 2;
                    break;
                }
            }
            outcome = dispatchEvent(session, kExtension, ev);
            checkOutside(p);
        }
        status = finishRun(session, outcome);
    }
    if (status != 0) std::abort();  // every run of transfer mode ends with 0
    checkOutside(p);
    emptyScratch(p);
    return 0;
}
