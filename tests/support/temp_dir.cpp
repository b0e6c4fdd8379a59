#include "support/temp_dir.h"

#include <algorithm>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <system_error>

namespace testsupport {

TempDir::TempDir() {
    std::string templ = (std::filesystem::temp_directory_path() / "varoft-test-XXXXXX").string();
    if (::mkdtemp(templ.data())) path_ = templ;
}

TempDir::~TempDir() {
    if (path_.empty()) return;
    std::error_code ec;
    // Make everything writable first, so read-only entries made by a test go too.
    for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec))
            std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ec);
    }
    std::filesystem::remove_all(path_, ec);
}

void writeFile(const std::filesystem::path& path, std::string_view content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> namesIn(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(directory, ec)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace testsupport
