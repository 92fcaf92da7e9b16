// A lock that clang's thread-safety analysis follows: data names the lock that guards it, and clang's build fails
// where it is used without. For other compilers it is a QMutex, and the names say nothing.
#pragma once

#include <QMutex>

#if defined(__clang__)
#define ORVANTIS_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define ORVANTIS_THREAD_SAFETY(attribute)
#endif

/// Of a member: only to be used while the lock is held.
#define GUARDED_BY(lock) ORVANTIS_THREAD_SAFETY(guarded_by(lock))
/// Of a function: only to be called while the lock is held.
#define REQUIRES(lock) ORVANTIS_THREAD_SAFETY(requires_capability(lock))

class ORVANTIS_THREAD_SAFETY(capability("mutex")) CheckedMutex : public QMutex { };

/// Holds the lock for its own lifetime.
class ORVANTIS_THREAD_SAFETY(scoped_lockable) CheckedLock {
public:
    explicit CheckedLock(CheckedMutex& mutex) ORVANTIS_THREAD_SAFETY(acquire_capability(mutex)) : mutex_(mutex)
    {
        mutex_.lock();
    }
    ~CheckedLock() ORVANTIS_THREAD_SAFETY(release_capability()) { mutex_.unlock(); }
    CheckedLock(const CheckedLock&) = delete;
    CheckedLock& operator=(const CheckedLock&) = delete;

private:
    QMutex& mutex_;
};
