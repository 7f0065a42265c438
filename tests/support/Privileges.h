#pragma once

/// Drops all capabilities of the calling thread and of the threads it starts later, and the process's
/// permission to use real-time priorities. Aborts on failure. Call it in a child process: it cannot be
/// undone.
void giveUpPrivileges();
