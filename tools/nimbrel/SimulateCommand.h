// SPDX-License-Identifier: Apache-2.0
// `nimbrel simulate gige`: simulated GigE cameras on this computer's network interfaces, until it is told to end.
#ifndef NIMBREL2_TOOLS_NIMBREL_SIMULATECOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_SIMULATECOMMAND_H

#include <functional>

namespace CLI {
class App;
}

namespace Nimbrel2::Tool {

/// Adds the subcommand. When it is chosen, setAction receives what is to run after parsing; that answers the exit
/// status. It prints on standard output and standard error, and blocks SIGINT and SIGTERM for its duration to end on
/// them.
void AddSimulateCommand(CLI::App& app, std::function<void(std::function<int()>)> setAction);

}  // namespace Nimbrel2::Tool

#endif
