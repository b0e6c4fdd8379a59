#include "archive/path_helpers.h"

#include "archive/stream.h"

std::int32_t mz_zip_attrib_is_dir(std::uint32_t attrib, std::int32_t version_madeby) {
    const auto host = static_cast<std::uint8_t>((version_madeby >> 8) & 0xFF);
    switch (host) {
        case MZ_HOST_SYSTEM_MSDOS:
        case MZ_HOST_SYSTEM_WINDOWS_NTFS:
            if ((attrib & 0x10u) && !(attrib & 0x400u)) return MZ_OK;
            break;
        case MZ_HOST_SYSTEM_UNIX:
        case MZ_HOST_SYSTEM_RISCOS:
        case MZ_HOST_SYSTEM_OSX_DARWIN: {
            const std::uint32_t mode = attrib > 0xFFFFu ? attrib >> 16 : attrib;
            if ((mode & 0170000u) == 0040000u) return MZ_OK;
            break;
        }
        default: break;
    }
    return MZ_EXIST_ERROR;
}

std::string mz_path_resolve(std::string_view name) {
    const std::size_t nul = name.find('\0');
    if (nul != std::string_view::npos) name = name.substr(0, nul);
    std::string out;
    out.reserve(name.size());
    std::size_t i = 0;
    while (i < name.size()) {
        std::size_t end = i;
        while (end < name.size() && name[end] != '/' && name[end] != '\\') ++end;
        const std::string_view part = name.substr(i, end - i);
        i = end + 1;
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            // Back to the previous separator (or to the start).
            const std::size_t cut = out.rfind('/');
            out.resize(cut == std::string::npos ? 0 : cut);
            continue;
        }
        if (!out.empty()) out.push_back('/');
        out.append(part);
    }
    return out;
}
