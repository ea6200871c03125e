#include "tests/support/fake_liblxc/ControlDirectory.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <sstream>
#include <unistd.h>

namespace FakeLxc {

namespace {

constexpr const char* defaultDirectory = "/run/fake-lxc";

} // namespace

ControlDirectory::ControlDirectory()
{
    const char* named = std::getenv("FAKE_LXC_DIR");
    base = named != nullptr && *named != '\0' ? named : defaultDirectory;
}

std::string ControlDirectory::path(const std::string& name) const
{
    return base + "/" + name;
}

bool ControlDirectory::has(const std::string& name) const
{
    return access(path(name).c_str(), F_OK) == 0;
}

std::optional<std::string> ControlDirectory::text(const std::string& name) const
{
    std::ifstream file(path(name), std::ios::binary);
    if (!file) {
        return std::nullopt;
    }
    std::ostringstream content;
    content << file.rdbuf();
    std::string result = content.str();
    if (!result.empty() && result.back() == '\n') {
        result.pop_back();
    }
    return result;
}

int ControlDirectory::number(const std::string& name, int otherwise) const
{
    const auto value = text(name);
    if (!value) {
        return otherwise;
    }
    char* end = nullptr;
    const long parsed = std::strtol(value->c_str(), &end, 10);
    return end == value->c_str() ? otherwise : static_cast<int>(parsed);
}

std::vector<std::string> ControlDirectory::entries(const std::string& name) const
{
    const auto closeDirectory = [](DIR* directory) { closedir(directory); };
    const std::unique_ptr<DIR, decltype(closeDirectory)> directory(opendir(path(name).c_str()),
                                                                   closeDirectory);
    std::vector<std::string> result;
    if (directory == nullptr) {
        return result;
    }
    while (const dirent* entry = readdir(directory.get())) {
        if (entry->d_name[0] != '.') {
            result.emplace_back(entry->d_name);
        }
    }
    std::sort(result.begin(), result.end());
    return result;
}

bool ControlDirectory::write(const std::string& name, const std::string& value) const
{
    static std::atomic<unsigned> serial{0};
    // The leading dot keeps the half-written file out of `entries`.
    const std::string target = path(name);
    const auto slash = target.rfind('/');
    const std::string temporary = target.substr(0, slash + 1) + "." + target.substr(slash + 1) + "." +
                                  std::to_string(getpid()) + "." + std::to_string(serial++);
    std::ofstream file(temporary, std::ios::binary);
    file << value << '\n';
    file.close();
    return file.good() && std::rename(temporary.c_str(), target.c_str()) == 0;
}

bool ControlDirectory::append(const std::string& name, const std::string& line) const
{
    const int fd = open(path(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    const std::string record = line + "\n";
    const bool complete = ::write(fd, record.data(), record.size()) == static_cast<ssize_t>(record.size());
    close(fd);
    return complete;
}

std::string fifoPath(const ControlDirectory& control, const std::string& lxcPath)
{
    return control.text("fifo_name").value_or("/run/lxc/" + lxcPath + "/monitor-fifo");
}

} // namespace FakeLxc
