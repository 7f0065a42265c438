#include "CXThreadAdditions.h"

#include "Thread.h"

void vt_setThreadName(std::string_view name)
{
    platform::Thread::setCurrentName(name);
}
