#pragma once

#include <CLI/CLI.hpp>

/// Adds `dxr demo`: audio runs on simulated hardware while devices come and go, and is measured.
void registerDemoCommand(CLI::App& app);
