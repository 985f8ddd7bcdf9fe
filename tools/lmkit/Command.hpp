#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace lmkit::tool {

/// A failure the tool reports as one line on standard error with exit code 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Options every subcommand shares.
struct Common {
    bool json = false;  // --json: data for machines instead of a table for people
};

/// A subcommand: `setup` adds it to the application and returns the action to run when it was
/// chosen. Actions return the exit code; they throw Failure for a clear one-line error.
struct Command {
    using Action = std::function<int()>;
    using Setup = std::function<Action(CLI::App& app, Common& common)>;

    Command(std::string name, std::string description, Setup setup);
};

struct Registered {
    std::string name;
    std::string description;
    Command::Setup setup;
};
std::vector<Registered>& registry();

}  // namespace lmkit::tool
