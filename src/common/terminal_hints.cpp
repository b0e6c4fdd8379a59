#include "common/terminal_hints.h"

#include "common/terminal_progress.h"

namespace terminal {

namespace {

std::string quoted(std::string_view text) { return "\"" + printable(text) + "\""; }

// "412 MiB of 1.00 GiB", or "412 MiB" when the total is not known.
std::string amount(const LostTransfer& t) {
    std::string text = formatSize(t.done);
    if (t.total > 0) text += " of " + formatSize(t.total);
    return text;
}

}  // namespace

std::string displayUnsetHint() {
    return "hint: DISPLAY is not set; name the proxy's display with -display <display> or set DISPLAY\n";
}

std::string missingExtensionHint(std::string_view display, Extension extension) {
    const char* what = extension == Extension::Print ? "print" : "file-transfer";
    const std::string which = display.empty() ? "this display" : "display " + quoted(display);
    return "hint: " + which + " has no " + what + " extension; is this the proxy's display?\n";
}

std::string bareDirectoryTargetHint(std::string_view target) {
    const std::string name = printable(target);
    return "hint: to receive into \"" + name + "\" in the current directory, use ./" + name + "\n";
}

std::string lostConnectionHint(const LostTransfer& t) {
    if (t.name.empty()) return "hint: the connection to the display was lost; no transfer was under way\n";
    const std::string what = quoted(t.name) + " (" + amount(t) + ")";
    switch (t.direction) {
    case Direction::Receiving:
        return "hint: the connection was lost while receiving " + what + "; " +
               quoted(t.target.empty() ? t.name : t.target) + " here is unchanged\n";
    case Direction::Sending:
        return "hint: the connection was lost while sending " + what +
               "; nothing here changed, but the desktop may hold an incomplete copy\n";
    case Direction::Printing:
        return "hint: the connection was lost while sending " + what + " for printing; it may not print\n";
    }
    return {};
}

std::string sessionActionLine(SessionAction action, std::string_view path, std::string_view newPath,
                              std::string_view outcome) {
    static constexpr const char* kVerbs[] = {"listed", "fetched", "stored", "deleted", "renamed"};
    std::string line = std::string("desktop ") + kVerbs[static_cast<std::size_t>(action)] + " " + printable(path);
    if (action == SessionAction::Renamed) line += " -> " + printable(newPath);
    if (!outcome.empty()) line += " (" + printable(outcome) + ")";
    return line + "\n";
}

}  // namespace terminal
