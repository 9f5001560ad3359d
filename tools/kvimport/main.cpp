// kvimport: the command-line program over the import library.

#include "CommandLine.h"
#include "EvalCommand.h"
#include "ImportCommand.h"
#include "ImportOptions.h"
#include "PreviewCommand.h"
#include "ZipCommand.h"
#include "platform/Exceptions.h"
#include "platform/FormatSettings.h"

#include <iostream>
#include <sqlite3.h>

namespace {

using namespace kv::cli;

struct Command {
    const char* name;
    int (*run)(const std::vector<std::string>&);
    std::string (*usage)(); ///< the help, made from the option tables
};

const Command kCommands[] = {
    {"eval", RunEval, [] { return std::string(EvalUsage); }},
    {"import", RunImport, ImportUsage},
    {"run", RunSpecification, RunUsage},
    {"preview", RunPreview, PreviewUsage},
    {"zip", RunZip, ZipUsage},
};

const char* const kUsage = "Usage: kvimport COMMAND [options]\n"
                           "\n"
                           "Commands:\n"
                           "  import SOURCE       import a file or table into an SQLite table\n"
                           "  run SPEC.kvi        run a saved import specification\n"
                           "  preview SOURCE      show the columns and first rows of a source\n"
                           "  eval EXPRESSION     evaluate one expression of the mapping language\n"
                           "  zip list ARCHIVE    list the members of a zip archive\n"
                           "\n"
                           "Run 'kvimport COMMAND --help' for the options of a command.\n";

} // namespace

int main(int argc, char** argv) {
    // Numbers and dates print by the environment's locale; the process locale itself stays "C", so that
    // nothing inside the library formats by it behind the regional settings' back.
    kv::DefaultFormatSettings = kv::GetLocaleFormatSettings("");
    // Nothing here reads SQLite's memory statistics, and keeping them locks a mutex on every allocation.
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);

    if (argc < 2) {
        std::cerr << kUsage;
        return ExitUsage;
    }
    const std::string name = argv[1];
    const std::vector<std::string> args(argv + 2, argv + argc);
    if (name == "--help" || name == "-h" || name == "help") {
        std::cout << kUsage;
        return ExitOk;
    }
    if (name == "--version") {
        std::cout << "kvimport 0.1.0\n";
        return ExitOk;
    }
    for (const Command& command : kCommands) {
        if (name != command.name) continue;
        try {
            return command.run(args);
        } catch (const HelpRequested&) {
            std::cout << command.usage();
            return ExitOk;
        } catch (const UsageError& e) {
            // The usage lines of the command, not its whole help.
            const std::string usage = command.usage();
            std::cerr << "kvimport " << name << ": " << e.what() << "\n"
                      << usage.substr(0, usage.find("\n\n")) << "\nRun 'kvimport " << name
                      << " --help' for the options.\n";
            return ExitUsage;
        } catch (const kv::Exception& e) {
            std::cerr << e.Message() << '\n';
            return ExitFailed;
        } catch (const std::exception& e) {
            std::cerr << "kvimport: " << e.what() << '\n';
            return ExitFailed;
        }
    }
    std::cerr << "kvimport: unknown command '" << name << "'\n\n" << kUsage;
    return ExitUsage;
}
