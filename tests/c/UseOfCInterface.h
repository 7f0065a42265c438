#pragma once

#ifdef __cplusplus
extern "C" {
#endif
/// Null, or what did not work.
const char* useOfCInterface(void);
#ifdef __cplusplus
}
#endif
