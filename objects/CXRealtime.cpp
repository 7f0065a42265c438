#include "CXRealtime.h"

namespace {

struct RealtimeState {
    int scopes = 0;
    int exemptions = 0;
};

// Initial-exec, because the default model may allocate when a thread first accesses the variable, and that
// can happen on a real-time thread.
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
