#pragma once

/// Takes every privilege from the calling thread, and from those that it starts, and the process's right to a real-time
/// priority. For a process of its own.
void giveUpPrivileges();
