// The hook through which tests make calls of this folder fail.
#include "fault.h"

namespace corvane {

base_fault_hook base_fault = nullptr;

} // namespace corvane
