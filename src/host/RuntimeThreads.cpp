/// @file
/// What the C++ runtime's own code (exceptions, static objects, emulated thread-local storage) uses of POSIX
/// threads, on Win32 directly. The library that brings them for everybody is an eighth of this program,
/// starts with it, and sees every exception of the process first. Visual C++'s runtime has none of it.

#if defined(__MINGW32__) && defined(__clang__)

#include <windows.h>
#include <pthread.h>

#include <cerrno>

namespace
{

// One for all: the runtime holds its mutexes for moments, and never two of them.
SRWLOCK g_lock = SRWLOCK_INIT;
CONDITION_VARIABLE g_changed = CONDITION_VARIABLE_INIT;
SRWLOCK g_onceLock = SRWLOCK_INIT;

} // namespace

extern "C"
{
    int pthread_mutex_init(pthread_mutex_t* /*mutex*/, const pthread_mutexattr_t* /*attributes*/)
    {
        return 0;
    }
    int pthread_mutex_destroy(pthread_mutex_t* /*mutex*/)
    {
        return 0;
    }
    int pthread_mutex_lock(pthread_mutex_t* /*mutex*/)
    {
        ::AcquireSRWLockExclusive(&g_lock);
        return 0;
    }
    int pthread_mutex_unlock(pthread_mutex_t* /*mutex*/)
    {
        ::ReleaseSRWLockExclusive(&g_lock);
        return 0;
    }

    int pthread_cond_wait(pthread_cond_t* /*condition*/, pthread_mutex_t* /*mutex*/)
    {
        ::SleepConditionVariableSRW(&g_changed, &g_lock, INFINITE, 0);
        return 0;
    }
    int pthread_cond_broadcast(pthread_cond_t* /*condition*/)
    {
        ::WakeAllConditionVariable(&g_changed);
        return 0;
    }
    int pthread_cond_destroy(pthread_cond_t* /*condition*/)
    {
        return 0;
    }

    int pthread_once(pthread_once_t* once, void (*routine)())
    {
        ::AcquireSRWLockExclusive(&g_onceLock);
        if (*once == PTHREAD_ONCE_INIT)
        {
            routine();
            *once = 1;
        }
        ::ReleaseSRWLockExclusive(&g_onceLock);
        return 0;
    }

    int pthread_key_create(pthread_key_t* key, void (*destructor)(void*))
    {
        // On x64 there is one calling convention, so the destructor fits. It is called for each thread that
        // ends.
        const DWORD slot = ::FlsAlloc(reinterpret_cast<PFLS_CALLBACK_FUNCTION>(destructor));
        *key = slot;
        return slot == FLS_OUT_OF_INDEXES ? EAGAIN : 0;
    }
    int pthread_key_delete(pthread_key_t key)
    {
        return ::FlsFree(key) ? 0 : EINVAL;
    }
    void* pthread_getspecific(pthread_key_t key)
    {
        const DWORD lastError = ::GetLastError(); // A throw must not change what the handler asks for.
        void* const value = ::FlsGetValue(key);
        ::SetLastError(lastError);
        return value;
    }
    int pthread_setspecific(pthread_key_t key, const void* value)
    {
        return ::FlsSetValue(key, const_cast<void*>(value)) ? 0 : ENOMEM;
    }
}

#endif
