// kvimport: the command-line program over the import library.

#include "CommandLine.h"
#include "EvalCommand.h"
#include "platform/FormatSettings.h"

#include <iostream>

namespace {

const char* const kUsage = "Usage: kvimport COMMAND [options]\n"
                           "\n"
                           "Commands:\n"
                           "  eval EXPRESSION     evaluate one expression of the mapping language\n"
                           "\n"
                           "Run 'kvimport COMMAND --help' for the options of a command.\n";

} // namespace

int main(int argc, char** argv) {
    using namespace kv::cli;
    // The regional settings are read from the environment's locale without switching the process locale,
    // so that number formatting inside the library never depends on it.
    try {
        kv::DefaultFormatSettings = kv::GetLocaleFormatSettings();
    } catch (const std::exception&) {
        // An unusable locale leaves the invariant settings in force.
    }

    if (argc < 2) {
        std::cerr << kUsage;
        return ExitUsage;
    }
    std::string command = argv[1];
    std::vector<std::string> args(argv + 2, argv + argc);
    try {
        if (command == "--help" || command == "-h" || command == "help") {
            std::cout << kUsage;
            return ExitOk;
        }
        if (command == "--version") {
            std::cout << "kvimport 0.1.0\n";
            return ExitOk;
        }
        if (command == "eval") return RunEval(args);
        throw UsageError("unknown command '" + command + "'");
    } catch (const UsageError& e) {
        std::cerr << "kvimport: " << e.what() << "\n\n" << kUsage;
        return ExitUsage;
    } catch (const std::exception& e) {
        std::cerr << e.what() << '\n';
        return ExitFailed;
    }
}
