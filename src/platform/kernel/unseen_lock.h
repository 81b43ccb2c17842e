// The lock of the verifier's own books.
#pragma once

#include <mutex>

#if defined(__SANITIZE_THREAD__)
extern "C" {
void AnnotateIgnoreSyncBegin(const char* file, int line);
void AnnotateIgnoreSyncEnd(const char* file, int line);
void AnnotateIgnoreReadsBegin(const char* file, int line);
void AnnotateIgnoreReadsEnd(const char* file, int line);
void AnnotateIgnoreWritesBegin(const char* file, int line);
void AnnotateIgnoreWritesEnd(const char* file, int line);
}
#endif

namespace platform {

/// A mutex that the race detector does not see, neither its ordering nor what it guards. Kernel
/// code that allocates or locks would otherwise appear ordered by the verifier's book-keeping, and
/// its races would go unreported. Never stop the machine while holding it.
class UnseenLock {
public:
    void lock() {
#if defined(__SANITIZE_THREAD__)
        AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
        AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
        AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
#endif
        mutex_.lock();
    }
    void unlock() {
        mutex_.unlock();
#if defined(__SANITIZE_THREAD__)
        AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
        AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
        AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
#endif
    }

private:
    std::mutex mutex_;
};

}  // namespace platform
