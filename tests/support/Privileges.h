#pragma once

/// Drops all capabilities of the calling thread and of threads it starts later, and the process's permission
/// to use real-time priorities. Aborts on failure. Cannot be undone: call it in a child process.
void giveUpPrivileges();
