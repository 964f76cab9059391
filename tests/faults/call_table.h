// The calls that a test can make fail. Included more than once, each time with other meanings of these macros; the first needs one:
//   CALL(name, symbol, result, parameters, arguments, detail)  a call and the symbol that the library imports for it on this target
//   FORM(name, symbol, result, parameters, arguments, detail)  another symbol, with parameters of its own, that counts as the call
//   NEVER(name)                                                a call that has no way to fail
//   RUNTIME(name, symbol, ...)                                 no call of the system, but one to see in the log
// A detail is what the log tells of a call: a text, of which the last component counts, or a number, or nothing.
// On 32 bits the library is built for 64-bit sizes and times, for which the C library has other symbols.
#ifndef FORM
#define FORM(...)
#endif
#ifndef NEVER
#define NEVER(name)
#endif
#ifndef RUNTIME
#define RUNTIME CALL
#endif
#if UINTPTR_MAX == UINT32_MAX
#define KEST_ON_32(usual, narrow) narrow
#else
#define KEST_ON_32(usual, narrow) usual
#endif

CALL(stat, KEST_ON_32(stat64, __stat64_time64), int, (const char* path, void* status), (path, status), path)
CALL(lstat, KEST_ON_32(lstat64, __lstat64_time64), int, (const char* path, void* status), (path, status), path)
CALL(utime, KEST_ON_32(utime, __utime64), int, (const char* path, const void* times), (path, times), path)
CALL(remove, remove, int, (const char* path), (path), path)
CALL(rename, rename, int, (const char* from, const char* to), (from, to), from)
CALL(realpath, realpath, char*, (const char* path, char* result), (path, result), path)
FORM(realpath, __realpath_chk, char*, (const char* path, char* result, size_t room), (path, result, room), path)
CALL(fnmatch, fnmatch, int, (const char* pattern, const char* name, int flags), (pattern, name, flags), flags)
CALL(opendir, opendir, DIR*, (const char* path), (path), path)
CALL(readdir, readdir64, void*, (DIR * stream), (stream), )
CALL(closedir, closedir, int, (DIR * stream), (stream), )
CALL(mkdir, mkdir, int, (const char* path, mode_t mode), (path, mode), path)
CALL(rmdir, rmdir, int, (const char* path), (path), path)
CALL(getcwd, getcwd, char*, (char* result, size_t size), (result, size), )
FORM(getcwd, __getcwd_chk, char*, (char* result, size_t size, size_t room), (result, size, room), )
CALL(chdir, chdir, int, (const char* path), (path), path)
CALL(openat, openat64, int, (int folder, const char* path, int flags, mode_t mode), (folder, path, flags, mode), path)
CALL(fstat, KEST_ON_32(fstat64, __fstat64_time64), int, (int descriptor, void* status), (descriptor, status), )
CALL(fstatat, KEST_ON_32(fstatat64, __fstatat64_time64), int, (int folder, const char* path, void* status, int flags),
     (folder, path, status, flags), path)
CALL(statx, statx, int, (int folder, const char* path, int flags, unsigned mask, void* status), (folder, path, flags, mask, status), path)
CALL(ftruncate, ftruncate64, int, (int descriptor, off_t size), (descriptor, size), )
CALL(futimens, KEST_ON_32(futimens, __futimens64), int, (int descriptor, const timespec* times), (descriptor, times), )
CALL(fsync, fsync, int, (int descriptor), (descriptor), )
CALL(syncfs, syncfs, int, (int descriptor), (descriptor), )
CALL(mknodat, mknodat, int, (int folder, const char* path, mode_t mode, dev_t device), (folder, path, mode, device), path)
CALL(renameat, renameat, int, (int fromFolder, const char* from, int toFolder, const char* to), (fromFolder, from, toFolder, to), from)
CALL(renameat2, renameat2, int, (int fromFolder, const char* from, int toFolder, const char* to, unsigned flags),
     (fromFolder, from, toFolder, to, flags), from)
CALL(linkat, linkat, int, (int fromFolder, const char* from, int toFolder, const char* to, int flags),
     (fromFolder, from, toFolder, to, flags), to)
CALL(unlinkat, unlinkat, int, (int folder, const char* path, int flags), (folder, path, flags), path)
CALL(read, read, ssize_t, (int descriptor, void* bytes, size_t size), (descriptor, bytes, size), )
CALL(write, write, ssize_t, (int descriptor, const void* bytes, size_t size), (descriptor, bytes, size), )
FORM(write, writev, ssize_t, (int descriptor, const void* pieces, int count), (descriptor, pieces, count), )
CALL(copy_file_range, copy_file_range, ssize_t, (int in, void* inOffset, int out, void* outOffset, size_t size, unsigned flags),
     (in, inOffset, out, outOffset, size, flags), )
NEVER(rewinddir)

CALL(gettimeofday, KEST_ON_32(gettimeofday, __gettimeofday64), int, (timeval * now, void* zone), (now, zone), )
CALL(localtime_r, KEST_ON_32(localtime_r, __localtime64_r), tm*, (const time_t* time, tm* result), (time, result), )
CALL(nanosleep, KEST_ON_32(nanosleep, __nanosleep64), int, (const timespec* time, timespec* rest), (time, rest), time->tv_nsec)
CALL(getenv, getenv, char*, (const char* name), (name), name)
CALL(getpriority, getpriority, int, (int which, id_t who), (which, who), )
CALL(setpriority, setpriority, int, (int which, id_t who, int value), (which, who, value), value)
CALL(strerror, strerror, char*, (int code), (code), code)
NEVER(getpid)

CALL(pthread_mutexattr_init, pthread_mutexattr_init, int, (pthread_mutexattr_t * attributes), (attributes), )
CALL(pthread_mutexattr_destroy, pthread_mutexattr_destroy, int, (pthread_mutexattr_t * attributes), (attributes), )
CALL(pthread_mutex_init, pthread_mutex_init, int, (pthread_mutex_t * mutex, const void* attributes), (mutex, attributes), )
CALL(pthread_mutex_lock, pthread_mutex_lock, int, (pthread_mutex_t * mutex), (mutex), )
CALL(pthread_mutex_trylock, pthread_mutex_trylock, int, (pthread_mutex_t * mutex), (mutex), )
CALL(pthread_mutex_unlock, pthread_mutex_unlock, int, (pthread_mutex_t * mutex), (mutex), )
CALL(pthread_mutex_destroy, pthread_mutex_destroy, int, (pthread_mutex_t * mutex), (mutex), )
CALL(pthread_cond_init, pthread_cond_init, int, (pthread_cond_t * condition, const void* attributes), (condition, attributes), )
CALL(pthread_cond_wait, pthread_cond_wait, int, (pthread_cond_t * condition, pthread_mutex_t* mutex), (condition, mutex), )
CALL(pthread_cond_timedwait, KEST_ON_32(pthread_cond_timedwait, __pthread_cond_timedwait64), int,
     (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* deadline), (condition, mutex, deadline), )
CALL(pthread_cond_signal, pthread_cond_signal, int, (pthread_cond_t * condition), (condition), )
CALL(pthread_cond_broadcast, pthread_cond_broadcast, int, (pthread_cond_t * condition), (condition), )
CALL(pthread_cond_destroy, pthread_cond_destroy, int, (pthread_cond_t * condition), (condition), )
CALL(pthread_create, pthread_create, int, (pthread_t * thread, const void* attributes, void* (*start)(void*), void* argument),
     (TLateHandle(thread), attributes, start, argument), )
CALL(pthread_join, pthread_join, int, (pthread_t thread, void** result), (thread, result), )
CALL(pthread_detach, pthread_detach, int, (pthread_t thread), (thread), )
CALL(pthread_cancel, pthread_cancel, int, (pthread_t thread), (thread), )
CALL(sigprocmask, sigprocmask, int, (int how, const sigset_t* set, sigset_t* before), (how, set, before), )
NEVER(pthread_self)
NEVER(pthread_equal)
NEVER(pthread_testcancel)
NEVER(pthread_setcancelstate)
NEVER(sigemptyset)
NEVER(sigaddset)

CALL(socket, socket, int, (int domain, int type, int protocol), (domain, type, protocol), type)
CALL(close, close, int, (int descriptor), (descriptor), )
CALL(shutdown, shutdown, int, (int descriptor, int how), (descriptor, how), how)
CALL(dup, dup, int, (int descriptor), (descriptor), )
CALL(fcntl, KEST_ON_32(fcntl64, __fcntl_time64), int, (int descriptor, int command, long argument), (descriptor, command, argument),
     command != F_SETFL             ? "read"
     : (argument & O_NONBLOCK) != 0 ? "nonblocking"
                                    : "blocking")
CALL(setsockopt, KEST_ON_32(setsockopt, __setsockopt64), int, (int descriptor, int level, int option, const void* value, socklen_t length),
     (descriptor, level, option, value, length), option)
CALL(getsockopt, KEST_ON_32(getsockopt, __getsockopt64), int, (int descriptor, int level, int option, void* value, socklen_t* length),
     (descriptor, level, option, value, length), option)
CALL(bind, bind, int, (int descriptor, const sockaddr* address, socklen_t length), (descriptor, address, length), )
CALL(listen, listen, int, (int descriptor, int backlog), (descriptor, backlog), backlog)
CALL(accept, accept, int, (int descriptor, sockaddr* address, socklen_t* length), (descriptor, address, length), )
CALL(getsockname, getsockname, int, (int descriptor, sockaddr* address, socklen_t* length), (descriptor, address, length), )
CALL(getpeername, getpeername, int, (int descriptor, sockaddr* address, socklen_t* length), (descriptor, address, length), )
CALL(connect, connect, int, (int descriptor, const sockaddr* address, socklen_t length), (descriptor, address, length), )
CALL(recv, recv, ssize_t, (int descriptor, void* bytes, size_t size, int flags), (descriptor, bytes, size, flags), flags)
FORM(recv, __recv_chk, ssize_t, (int descriptor, void* bytes, size_t size, size_t room, int flags), (descriptor, bytes, size, room, flags),
     flags)
CALL(recvfrom, recvfrom, ssize_t, (int descriptor, void* bytes, size_t size, int flags, sockaddr* address, socklen_t* length),
     (descriptor, bytes, size, flags, address, length), flags)
FORM(recvfrom, __recvfrom_chk, ssize_t,
     (int descriptor, void* bytes, size_t size, size_t room, int flags, sockaddr* address, socklen_t* length),
     (descriptor, bytes, size, room, flags, address, length), flags)
CALL(send, send, ssize_t, (int descriptor, const void* bytes, size_t size, int flags), (descriptor, bytes, size, flags), flags)
CALL(sendto, sendto, ssize_t, (int descriptor, const void* bytes, size_t size, int flags, const sockaddr* address, socklen_t length),
     (descriptor, bytes, size, flags, address, length), flags)
CALL(select, KEST_ON_32(select, __select64), int, (int count, void* reading, void* writing, void* exceptions, timeval* limit),
     (count, reading, writing, exceptions, limit), limit == nullptr ? -1 : static_cast<long>(limit->tv_sec))
CALL(getprotobyname, getprotobyname, protoent*, (const char* name), (name), name)
CALL(gethostbyname2_r, gethostbyname2_r, int,
     (const char* name, int family, hostent* entry, char* work, size_t size, hostent** result, int* error),
     (name, family, entry, work, size, result, error), name)
CALL(gethostbyaddr, gethostbyaddr, hostent*, (const void* address, socklen_t length, int family), (address, length, family), )
CALL(inet_pton, inet_pton, int, (int family, const char* text, void* result), (family, text, result), text)
CALL(inet_ntop, inet_ntop, const char*, (int family, const void* address, char* result, socklen_t size), (family, address, result, size), )
CALL(inet_addr, inet_addr, in_addr_t, (const char* text), (text), text)
NEVER(inet_ntoa)

CALL(dlopen, dlopen, void*, (const char* name, int mode), (name, mode), name)
CALL(dlclose, dlclose, int, (void* handle), (handle), )
CALL(dlerror, dlerror, char*, (), (), )

RUNTIME(exception, __cxa_allocate_exception, void*, (size_t size), (size), )

#undef KEST_ON_32
#undef CALL
#undef FORM
#undef NEVER
#undef RUNTIME
