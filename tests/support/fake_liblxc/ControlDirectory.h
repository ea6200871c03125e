#pragma once

#include <optional>
#include <string>
#include <vector>

namespace FakeLxc {

/// The directory by which a test steers the fakes: $FAKE_LXC_DIR, or /run/fake-lxc. Every read looks at the
/// file anew, so that a test changes the answers of a running process. Any thread may use it.
///
/// Names are relative to the directory. Tests replace a file by renaming a new one over it.
class ControlDirectory
{
public:
    /// The directory that the environment names at the time of the call.
    ControlDirectory();

    /// Full path of a name.
    [[nodiscard]] std::string path(const std::string& name) const;
    [[nodiscard]] bool has(const std::string& name) const;
    /// The file's text without its last newline; nothing when there is no such file.
    [[nodiscard]] std::optional<std::string> text(const std::string& name) const;
    /// The file's text as a decimal number; `otherwise` when there is no such file or no number in it.
    [[nodiscard]] int number(const std::string& name, int otherwise) const;
    /// Names in a directory in byte-wise order; empty when there is no such directory.
    [[nodiscard]] std::vector<std::string> entries(const std::string& name) const;

    /// Replaces a file's text in one step. Returns false when it cannot.
    bool write(const std::string& name, const std::string& value) const;
    /// Appends one line by one system call, so that lines of several threads and processes never mix.
    bool append(const std::string& name, const std::string& line) const;

private:
    std::string base;
};

/// The FIFO into which containers below `lxcPath` report: the control file `fifo_name`, or liblxc's own name.
[[nodiscard]] std::string fifoPath(const ControlDirectory& control, const std::string& lxcPath);

} // namespace FakeLxc
