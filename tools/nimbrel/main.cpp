// SPDX-License-Identifier: Apache-2.0
// The command line, on the buses of this computer.
#include "tools/nimbrel/Program.h"

int main(int argc, char** argv) { return Nimbrel2::Tool::RunProgram(argc, argv); }
