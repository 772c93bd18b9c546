// Lets the recording platform refuse a fallible call of this folder. Null, as on the real platform: nothing is refused.
#pragma once

namespace corvane {

using base_fault_hook = bool (*)(const char *call);          // true: the call must fail
extern base_fault_hook base_fault;

inline bool base_refuses(const char *call)
{
    return base_fault != nullptr && base_fault(call);
}

} // namespace corvane
