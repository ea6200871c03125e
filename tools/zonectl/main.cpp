#include "CommandLine/Failure.h"
#include "CommandLine/Options.h"
#include "Commands.h"
#include "Output/Output.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

namespace {

void report(const std::string& message)
{
    std::cout.flush(); // what was printed before the error stays before it
    std::cerr << "zonectl: " << Zonectl::printable(message) << "\n";
}

} // namespace

int main(int argc, char* argv[])
{
    using namespace Zonectl;
    try {
        const std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
        const ExitStatus status = runCommand(parseOptions(arguments));
        if (!std::cout.flush()) {
            throw Failure(EXIT_FAILED, "the output could not be written");
        }
        return status;
    } catch (const Failure& failure) {
        report(failure.what());
        return failure.status();
    } catch (const std::exception& error) {
        report(error.what());
        return EXIT_FAILED;
    }
}
