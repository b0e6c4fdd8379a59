// What both fuzz targets keep around the directory they let the code work in: a place made once
// per process (and removed when it ends) that holds that directory beside files whose text must
// stay, and the checks that abort as soon as anything else in it was created, changed or removed.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <string>

namespace outside {

namespace fs = std::filesystem;

inline constexpr const char* kText = "outside the code's own directory";

inline void writeText(const fs::path& path) {
    if (FILE* f = std::fopen(path.c_str(), "wb")) {
        std::fputs(kText, f);
        std::fclose(f);
    }
}

[[noreturn]] inline void touched(const fs::path& what) {
    std::fprintf(stderr, "touched outside the scratch directory: %s\n", what.c_str());
    std::abort();
}

// A new directory in the temporary directory, removed with everything in it at exit.
inline fs::path makePlace(const char* prefix) {
    static fs::path made;
    std::string templ = (fs::temp_directory_path() / (std::string(prefix) + "-XXXXXX")).string();
    if (!made.empty() || !::mkdtemp(templ.data())) std::abort();
    made = templ;
    std::atexit([] {
        std::error_code ec;
        fs::remove_all(made, ec);
    });
    return made;
}

// Aborts unless `place` holds only `allowed` and each of `kept` is still a regular file with
// its text.
inline void check(const fs::path& place, std::initializer_list<fs::path> allowed, std::initializer_list<fs::path> kept) {
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(place, ec)) {
        bool known = false;
        for (const fs::path& a : allowed) known = known || entry.path() == a;
        if (!known) touched(entry.path());
    }
    for (const fs::path& file : kept) {
        char text[64] = {};
        FILE* f = fs::is_regular_file(fs::symlink_status(file, ec)) ? std::fopen(file.c_str(), "rb") : nullptr;
        const std::size_t n = f ? std::fread(text, 1, sizeof text - 1, f) : 0;
        if (f) std::fclose(f);
        if (std::string(text, n) != kText) touched(file);
    }
}

}  // namespace outside
