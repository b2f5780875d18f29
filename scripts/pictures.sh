#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Draws the pictures of the documents anew: scripts/pictures.sh NIMBREL [FOLDER]. They are what the program answers;
# tests/project/check_pictures.py holds them to it.
set -euo pipefail
nimbrel=$(realpath "${1:?the nimbrel program}")
cd "$(dirname "$0")/.."
folder=${2:-docs/pictures}

"$nimbrel" --demo topology --format svg --output "$folder/demo.svg"
"$nimbrel" --rig examples/rigs/production-line.json topology --format svg --output "$folder/production-line.svg"
