#pragma once

#include "CXBlock.h"

#include <string>
#include <string_view>

namespace dxr {

/// Where log lines go: the system log and standard error, unless the application says otherwise.
/// Threads:   any. Lines of several threads are not mixed.
/// Real time: no; logging waits and allocates.
class DXR_EXPORT LogSink {
public:
    using Writer = CXBlock<void(std::string_view line)>;

    /// Writes one message. Never fails visibly.
    static void log(std::string_view line);
    /// Sends every later line to `writer` instead; an empty one brings the default back. A line that another
    /// thread is writing just now may still go to the old writer.
    static void setWriter(Writer writer);
};

/// `text` with every control character but tab and newline, and every byte that is not UTF-8, replaced by its hexadecimal
/// code, so that a device's name cannot drive the terminal that shows it.
DXR_EXPORT std::string printableText(std::string_view text);

} // namespace dxr
