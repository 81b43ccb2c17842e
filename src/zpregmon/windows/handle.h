// Owners of what the system's functions hand out.
#pragma once

#include <windows.h>

#include <memory>
#include <type_traits>

namespace zpregmon {

template <auto close>
struct CloseWith {
    template <typename T>
    void operator()(T* object) const {
        close(object);
    }
};

/// Null when it owns nothing.
using Handle = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseWith<CloseHandle>>;
using ServiceHandle =
    std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, CloseWith<CloseServiceHandle>>;
using RegistryKey = std::unique_ptr<std::remove_pointer_t<HKEY>, CloseWith<RegCloseKey>>;

/// What CreateFileW returned.
inline Handle OwnFile(HANDLE file) {
    return Handle(file != INVALID_HANDLE_VALUE ? file : nullptr);
}

}  // namespace zpregmon
