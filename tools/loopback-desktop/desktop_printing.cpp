// Printing: the files the client sends through the print extension, kept in the print folder.
#include "desktop.h"

#include "desktop_support.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace loopback::desk;

namespace loopback {

void Desktop::onPrint(const Request& request) {
    const auto chunk = decodePrintChunk(request.bytes);
    if (!chunk) {
        say("malformed print request");
        server_.sendError(request, kBadLength);
        return;
    }
    const std::uint8_t code = options_.printCode;
    server_.sendPrintReply(request, code, options_.printReason);
    if (chunk->begin) {
        if (printing_) say("print job " + printName_ + " abandoned");
        printName_ = baseName(chunk->name);
        if (printName_.empty() || printName_ == "." || printName_ == "..") printName_ = "unnamed";
        printData_.clear();
        printing_ = code == 0;
        say("print " + printName_ + (code == 0 ? ": accepted" : ": rejected with code " + std::to_string(code)));
    } else if (!printing_) {
        say("print data without an accepted job (" + std::to_string(chunk->data.size()) + " bytes), answered " +
            std::to_string(code));
        return;
    } else if (code != 0) {
        say("print " + printName_ + ": rejected with code " + std::to_string(code));
        printing_ = false;
        return;
    }
    if (!printing_) return;
    printData_.insert(printData_.end(), chunk->data.begin(), chunk->data.end());
    if (chunk->more) return;
    printing_ = false;
    std::error_code ec;
    fs::create_directories(options_.printFolder, ec);
    const fs::path target = options_.printFolder / printName_;
    File file(std::fopen(target.c_str(), "wb"));
    const bool ok = file && (printData_.empty() || std::fwrite(printData_.data(), 1, printData_.size(), file.get()) == printData_.size()) &&
                    std::fclose(file.release()) == 0;
    say(ok ? "printed " + printName_ + " (" + std::to_string(printData_.size()) + " bytes)" : "cannot keep printed file " + target.string());
}

}  // namespace loopback
