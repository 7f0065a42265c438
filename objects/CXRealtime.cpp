#include "CXRealtime.h"

namespace {

struct RealtimeState {
    int scopes = 0;
    int exemptions = 0;
};

// Initial-exec: the default model may allocate at a thread's first touch, on the very path that must not.
thread_local RealtimeState realtimeState __attribute__((tls_model("initial-exec")));

} // namespace

CXRealtimeScope::CXRealtimeScope() noexcept
{
    ++realtimeState.scopes;
}

CXRealtimeScope::~CXRealtimeScope()
{
    --realtimeState.scopes;
}

bool CXRealtimeScope::isChecked() noexcept
{
    return realtimeState.scopes > 0 && realtimeState.exemptions == 0;
}

CXRealtimeExemption::CXRealtimeExemption(const char* /*why*/) noexcept
{
    ++realtimeState.exemptions;
}

CXRealtimeExemption::~CXRealtimeExemption()
{
    --realtimeState.exemptions;
}
