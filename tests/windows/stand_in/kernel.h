// MinGW-w64's header of the kernel, which defines two functions that the compiler's header has.
#pragma once

#include <intrin.h>

#define InterlockedBitTestAndSet KernelBitTestAndSet
#define InterlockedBitTestAndReset KernelBitTestAndReset
#include <ntddk.h>
#undef InterlockedBitTestAndReset
#undef InterlockedBitTestAndSet
