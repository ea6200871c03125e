#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

/// A directory that stands for the root of a system and is removed at the end.
class TemporaryTree
{
public:
    TemporaryTree()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "zonectl-test-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        directory = pattern;
    }
    ~TemporaryTree()
    {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }
    TemporaryTree(const TemporaryTree&) = delete;
    TemporaryTree& operator=(const TemporaryTree&) = delete;

    [[nodiscard]] const std::string& root() const { return directory; }

    void makeDirectory(const std::string& path) const
    {
        std::filesystem::create_directories(directory + path);
    }

    void write(const std::string& path, const std::string& text) const
    {
        makeDirectory(std::filesystem::path(path).parent_path().string());
        std::ofstream(directory + path) << text;
    }

    /// Who may do what with the path, and that others may come as far as there.
    void permit(const std::string& path, unsigned int mode) const
    {
        std::filesystem::permissions(directory, std::filesystem::perms(0755));
        std::filesystem::permissions(directory + path, std::filesystem::perms(mode));
    }

private:
    std::string directory;
};
