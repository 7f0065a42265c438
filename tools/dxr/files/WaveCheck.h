#pragma once

#include <string>

/// What is wrong with the file at `path`, in a few words, when it cannot be read, is empty, or is a WAV file
/// whose samples are fewer than its header says; empty when nothing is. Other kinds of file are not
/// looked at. Threads: any; reads the file.
std::string waveFileFault(const std::string& path);
