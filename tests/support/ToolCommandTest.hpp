#pragma once
// The fixture of the tool's command tests: the built `lmkit` runs with its log folder and app
// group inside the test's own directory, and the tests skip where the tool is not built.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "support/TestSupport.hpp"

namespace lmkit::testing {

class ToolCommandTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::string(LMKIT_TOOL_PATH).empty())
            GTEST_SKIP() << "the tool is not built";
    }
    // `lmkit ARGS` as a shell command.
    std::string tool(const std::string& args) const {
        return "LMKIT_LOG_DIR='" + (dir_.path() / "logs").string() + "' LMKIT_APP_GROUP_DIR='" +
               (dir_.path() / "group").string() + "' '" + LMKIT_TOOL_PATH + "' " + args;
    }
    // `lmkit ARGS` run, its standard error joined to its output.
    std::string run(const std::string& args, int* status = nullptr) const {
        return runCommand(tool(args) + " 2>&1", status);
    }
    // A shell script run in the test's directory with the same environment and $LMKIT the tool.
    // Separate statements: a body that starts with a background job must not take the exports
    // into its subshell.
    std::string script(const std::string& body, int* status = nullptr) const {
        return runCommand("cd '" + dir_.path().string() + "' || exit 99; export LMKIT_LOG_DIR='" +
                              (dir_.path() / "logs").string() + "' LMKIT_APP_GROUP_DIR='" +
                              (dir_.path() / "group").string() + "' LMKIT='" + LMKIT_TOOL_PATH +
                              "'; " + body,
                          status);
    }
    // A file in the test's directory holding `text`; its path.
    std::string write(const std::string& text, const std::string& name) const {
        auto path = (dir_.path() / name).string();
        std::ofstream(path) << text;
        return path;
    }
    TempDir dir_;
};

}  // namespace lmkit::testing
