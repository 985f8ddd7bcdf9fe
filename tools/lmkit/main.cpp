// lmkit: the command-line face of the kit. Each subcommand lives in its own file and registers
// itself with the registry; this file parses, dispatches and turns failures into one line.
#include <malloc.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>

#include <fmt/format.h>

#include "Command.hpp"

namespace lmkit::tool {

std::vector<Registered>& registry() {
    static std::vector<Registered> commands;
    return commands;
}

Command::Command(std::string name, std::string description, Setup setup) {
    registry().push_back({std::move(name), std::move(description), std::move(setup)});
}

namespace {

// Output that did not reach its destination (a full disk, a closed pipe, /dev/full) is a
// failure like any other: every subcommand's output ends here, so one check serves them all.
// Empty when everything written so far arrived.
std::string standardOutputFailure() {
    errno = 0;
    std::cout.flush();
    const bool flushed = std::fflush(stdout) == 0;
    const int error = errno;
    if (flushed && !std::ferror(stdout) && !std::cout.fail())
        return {};
    return std::string("cannot write standard output") +
           (error != 0 ? std::string(": ") + std::strerror(error) : std::string());
}

}  // namespace

}  // namespace lmkit::tool

int main(int argc, char** argv) {
    using namespace lmkit::tool;
    // The kit's pool threads allocate replies and records side by side; an arena per thread
    // would keep several partly used heaps resident for a command that runs for seconds.
    mallopt(M_ARENA_MAX, 1);
    CLI::App app{
        "lmkit: probe, score and pick relay nodes; measure networks; build tunnel options"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "lmkit 0.1.0");

    Common common;
    std::map<CLI::App*, Command::Action> actions;
    for (auto& command : registry()) {
        CLI::App* sub = app.add_subcommand(command.name, command.description);
        actions[sub] = command.setup(*sub, common);
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {  // --help, --version
            const int status = app.exit(error);
            const std::string lost = standardOutputFailure();
            if (lost.empty())
                return status;
            std::fprintf(stderr, "lmkit: %s\n", lost.c_str());
            return 1;
        }
        std::fprintf(stderr, "lmkit: %s\n", error.what());
        return 1;
    }

    for (auto& [sub, action] : actions) {
        if (!sub->parsed())
            continue;
        int status = 1;
        std::string failure;
        try {
            status = action();
        } catch (const Failure& error) {
            failure = error.what();
        } catch (const std::exception& error) {
            failure = error.what();
        }
        // A failure already said is the one line; otherwise a lost write becomes it.
        const std::string lost = standardOutputFailure();
        if (failure.empty() && !lost.empty())
            failure = lost;
        if (failure.empty())
            return status;
        std::fprintf(stderr, "lmkit %s: %s\n", sub->get_name().c_str(), failure.c_str());
        return 1;
    }
    return 1;
}
