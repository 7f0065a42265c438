#pragma once

#include <CLI/CLI.hpp>

/// Adds `manual` and `completion`: man pages and shell completions, made from the commands that `app` has. Register it
/// last.
void registerPagesCommands(CLI::App& app);
