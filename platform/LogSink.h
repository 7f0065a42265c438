#pragma once

#include "CXBlock.h"

#include <string>
#include <string_view>

namespace dxr {

/// The destination of log lines: the system log and standard error, or the application's writer.
/// Threads:   any. Lines of different threads are not interleaved.
/// Real time: no; logging waits and allocates.
class DXR_EXPORT LogSink {
public:
    using Writer = CXBlock<void(std::string_view line)>;

    /// Writes one message. Failures are not reported.
    static void log(std::string_view line);
    /// Sends all later lines to `writer`; an empty writer restores the default. A line that another thread is
    /// writing during the call may still be sent to the old writer. `writer` may be called with any of the
    /// library's locks held: it must not use devices, settings or runners, which may take the same lock.
    static void setWriter(Writer writer);
};

/// Returns `text` with control characters except tab and newline, and bytes that are not UTF-8, replaced by
/// their hexadecimal codes, so that a device's name cannot control the terminal that displays it.
DXR_EXPORT std::string printableText(std::string_view text);

} // namespace dxr
