// lmkit: the command-line face of the kit. Each subcommand lives in its own file and registers
// itself with the registry; this file parses, dispatches and turns failures into one line.
#include <cstdio>
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

}  // namespace lmkit::tool

int main(int argc, char** argv) {
    using namespace lmkit::tool;
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
        if (error.get_exit_code() == 0)
            return app.exit(error);  // --help, --version
        std::fprintf(stderr, "lmkit: %s\n", error.what());
        return 1;
    }

    for (auto& [sub, action] : actions) {
        if (!sub->parsed())
            continue;
        try {
            return action();
        } catch (const Failure& failure) {
            std::fprintf(stderr, "lmkit %s: %s\n", sub->get_name().c_str(), failure.what());
        } catch (const std::exception& error) {
            std::fprintf(stderr, "lmkit %s: %s\n", sub->get_name().c_str(), error.what());
        }
        return 1;
    }
    return 1;
}
