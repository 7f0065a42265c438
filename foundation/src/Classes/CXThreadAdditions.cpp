#include "CXThreadAdditions.h"

#include "Thread.h"

void vt_setThreadName(std::string_view name)
{
    dxr::Thread::setCurrentName(name);
}
