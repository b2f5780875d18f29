// SPDX-License-Identifier: Apache-2.0
// Uses the installed core with a HAL of the application's own.
#include <busmaster/BusMaster.h>

#include "print_counts.h"

int main() { return PrintCounts(); }
