// A shell's connection. The session itself is private to its file.
#pragma once

#include "cmdsrv.h"
#include "cmdsrv_filter.h"
