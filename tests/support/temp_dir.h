// A scratch directory removed with everything in it when the test ends.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace testsupport {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string str() const { return path_.string(); }
    std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

void writeFile(const std::filesystem::path& path, std::string_view content);
std::string readFile(const std::filesystem::path& path);
// The names in a directory (hidden ones included), sorted.
std::vector<std::string> namesIn(const std::filesystem::path& directory);

}  // namespace testsupport
