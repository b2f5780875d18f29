// SPDX-License-Identifier: Apache-2.0
// A program that has this one subcommand. Exit status 2 for wrong usage.
#include <signal.h>

#include <CLI/CLI.hpp>

#include "tools/nimbrel/SimulateCommand.h"

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);  // as the whole program does
    CLI::App app;
    std::function<int()> action;
    Nimbrel2::Tool::AddSimulateCommand(app, [&action](std::function<int()> chosen) { action = std::move(chosen); });
    app.require_subcommand(1);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    return action();
}
