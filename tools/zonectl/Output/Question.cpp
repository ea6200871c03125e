#include "Output/Question.h"

#include "Output/Output.h"

#include <array>
#include <iostream>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace Zonectl {

bool canAsk()
{
    return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
}

std::optional<bool> ask(const std::string& question, std::chrono::seconds patience)
{
    tcflush(STDIN_FILENO, TCIFLUSH); // who typed before the question cannot have meant it
    std::cerr << printable(question) << " [y/N] " << std::flush;
    pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(patience);
    if (poll(&input, 1, static_cast<int>(limit.count())) != 1) {
        std::cerr << "\n";
        return std::nullopt;
    }
    std::array<char, 256> answer{}; // a terminal gives one line at a time
    const ssize_t length = read(STDIN_FILENO, answer.data(), answer.size());
    if (length < 1) {
        std::cerr << "\n";
    }
    return length > 0 && (answer[0] == 'y' || answer[0] == 'Y');
}

} // namespace Zonectl
