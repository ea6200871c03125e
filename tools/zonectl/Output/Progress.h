#pragma once

#include <string>

namespace Zonectl {

/// Tells on standard error how things go: on a terminal in one line that is rewritten, elsewhere in plain
/// lines.
class Progress
{
public:
    enum class Manner
    {
        Silent,
        Lines,
        Rewritten,
    };

    /// Silent for a program that reads JSON.
    [[nodiscard]] static Manner mannerFor(bool json);

    explicit Progress(Manner chosen) : manner(chosen) {}
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Something that is to stay.
    void line(const std::string& text);
    /// Something that happened; the next one takes its place where it can.
    void event(const std::string& text);
    /// How things stand; only where it can be rewritten.
    void status(const std::string& text);
    /// Takes the rewritten line away, so that others may write.
    void clear();

private:
    Manner manner;
    bool statusShown = false;
};

} // namespace Zonectl
