#include "HALDefaultBackend.h"

#include "PipeWireBackend.h"

CXRef<HALBackend> halMakeDefaultBackend()
{
    return PipeWireBackend::initWithRemote();
}
