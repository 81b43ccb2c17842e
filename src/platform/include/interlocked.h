// Interlocked operations and the named plain accesses that go with them.
//
// All interlocked operations are full barriers. A field that one thread writes while others read it
// without a lock is read and written through the ReadXxx/WriteXxx accessors, never directly.
#pragma once

#include "ntdef.h"

inline LONG InterlockedIncrement(volatile LONG* target) {
    return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedDecrement(volatile LONG* target) {
    return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedExchange(volatile LONG* target, LONG value) {
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
/// Returns the value before the addition.
inline LONG InterlockedExchangeAdd(volatile LONG* target, LONG value) {
    return __atomic_fetch_add(target, value, __ATOMIC_SEQ_CST);
}
/// Returns the value before the operation.
inline LONG InterlockedOr(volatile LONG* target, LONG bits) {
    return __atomic_fetch_or(target, bits, __ATOMIC_SEQ_CST);
}
/// Returns the value before the operation.
inline LONG InterlockedAnd(volatile LONG* target, LONG bits) {
    return __atomic_fetch_and(target, bits, __ATOMIC_SEQ_CST);
}
/// Stores `value` if the target equals `comparand`; returns the value before the operation.
inline LONG InterlockedCompareExchange(volatile LONG* target, LONG value, LONG comparand) {
    __atomic_compare_exchange_n(target, &comparand, value, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return comparand;
}
inline LONG64 InterlockedIncrement64(volatile LONG64* target) {
    return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);
}
inline LONG64 InterlockedExchange64(volatile LONG64* target, LONG64 value) {
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
/// Returns the value before the addition.
inline LONG64 InterlockedExchangeAdd64(volatile LONG64* target, LONG64 value) {
    return __atomic_fetch_add(target, value, __ATOMIC_SEQ_CST);
}
/// Stores `value` if the target equals `comparand`; returns the value before the operation.
inline LONG64 InterlockedCompareExchange64(volatile LONG64* target, LONG64 value,
                                           LONG64 comparand) {
    __atomic_compare_exchange_n(target, &comparand, value, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return comparand;
}
inline PVOID InterlockedExchangePointer(PVOID volatile* target, PVOID value) {
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
/// Stores `value` if the target equals `comparand`; returns the value before the operation.
inline PVOID InterlockedCompareExchangePointer(PVOID volatile* target, PVOID value,
                                               PVOID comparand) {
    __atomic_compare_exchange_n(target, &comparand, value, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return comparand;
}

inline LONG ReadNoFence(const volatile LONG* source) {
    return __atomic_load_n(source, __ATOMIC_RELAXED);
}
inline LONG ReadAcquire(const volatile LONG* source) {
    return __atomic_load_n(source, __ATOMIC_ACQUIRE);
}
inline void WriteNoFence(volatile LONG* target, LONG value) {
    __atomic_store_n(target, value, __ATOMIC_RELAXED);
}
inline void WriteRelease(volatile LONG* target, LONG value) {
    __atomic_store_n(target, value, __ATOMIC_RELEASE);
}
inline UCHAR ReadUCharNoFence(const volatile UCHAR* source) {
    return __atomic_load_n(source, __ATOMIC_RELAXED);
}
inline void WriteUCharNoFence(volatile UCHAR* target, UCHAR value) {
    __atomic_store_n(target, value, __ATOMIC_RELAXED);
}
inline ULONG ReadULongNoFence(const volatile ULONG* source) {
    return __atomic_load_n(source, __ATOMIC_RELAXED);
}
inline ULONG ReadULongAcquire(const volatile ULONG* source) {
    return __atomic_load_n(source, __ATOMIC_ACQUIRE);
}
inline void WriteULongNoFence(volatile ULONG* target, ULONG value) {
    __atomic_store_n(target, value, __ATOMIC_RELAXED);
}
inline void WriteULongRelease(volatile ULONG* target, ULONG value) {
    __atomic_store_n(target, value, __ATOMIC_RELEASE);
}
inline LONG64 ReadNoFence64(const volatile LONG64* source) {
    return __atomic_load_n(source, __ATOMIC_RELAXED);
}
inline void WriteNoFence64(volatile LONG64* target, LONG64 value) {
    __atomic_store_n(target, value, __ATOMIC_RELAXED);
}
inline PVOID ReadPointerNoFence(PVOID const volatile* source) {
    return __atomic_load_n(source, __ATOMIC_RELAXED);
}
inline PVOID ReadPointerAcquire(PVOID const volatile* source) {
    return __atomic_load_n(source, __ATOMIC_ACQUIRE);
}
inline void WritePointerRelease(PVOID volatile* target, PVOID value) {
    __atomic_store_n(target, value, __ATOMIC_RELEASE);
}
