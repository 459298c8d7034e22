// Checked, logged and traced wrappers round every system call and driver request that
// the camera stack makes.
//
// Every wrapper may be called from any thread; none keeps state or takes a lock. A
// wrapper returns the call's own success value or, on failure, the negated errno (null
// for the directory wrappers), after logging the failure and reacting to the error.
// Descriptors a wrapper creates are tagged with `owner` and must be closed with
// Close(fd, owner) using the same owner value.
#pragma once

#include <dirent.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/timerfd.h>

#include <cstdint>

#include "tavrel/Export.h"

namespace NSCam::NSTavrel::System {

// Files and directories.
TAVREL_SYS_API int64_t Read(int fd, void* buf, unsigned long count);
TAVREL_SYS_API int64_t Write(int fd, const void* buf, unsigned long count);
// Opens character and block devices only; anything else gives -ENODEV.
TAVREL_SYS_API int Open(const char* path, int flags, unsigned long owner);
TAVREL_SYS_API int Close(int fd, unsigned long owner);
TAVREL_SYS_API int Stat(const char* path, struct stat* st);
// The buffer is not terminated.
TAVREL_SYS_API int ReadLink(const char* path, char* buf, unsigned long size);
TAVREL_SYS_API DIR* OpenDir(const char* path);
// Null at the end of the directory too, which is logged like an error.
TAVREL_SYS_API struct dirent* ReadDir(DIR* dir);
TAVREL_SYS_API int CloseDir(DIR* dir);

// Event primitives.
TAVREL_SYS_API int EventFD(unsigned int initval, int flags, unsigned long owner);
TAVREL_SYS_API int EPollCreate(int size, unsigned long owner);
TAVREL_SYS_API int EPollCtlAdd(int epfd, int fd, struct epoll_event* event);
TAVREL_SYS_API int EPollCtlMod(int epfd, int fd, struct epoll_event* event);
TAVREL_SYS_API int EPollCtlDel(int epfd, int fd, struct epoll_event* event);
// An interrupted wait returns -EINTR silently.
TAVREL_SYS_API int EPollWait(int epfd, struct epoll_event* events, int maxevents, int timeout);
TAVREL_SYS_API int TimerFDCreate(int clockid, int flags, unsigned long owner);
TAVREL_SYS_API int TimerFDSetTime(int fd, int flags, const struct itimerspec* newValue,
                                  struct itimerspec* oldValue);
TAVREL_SYS_API int TimerFDGetTime(int fd, struct itimerspec* current);

// Imaging driver requests. A failed request (other than the exceptions noted) raises a
// crash report and ends the service; should the service survive, -errno is returned.

// Bit 0 of Ioctl's flags: treat a negative result as a failure (log it, return -errno).
inline constexpr unsigned int kIoctlCheckResult = 0x1;
// Never fatal. Without kIoctlCheckResult the raw result is returned and errno is left.
TAVREL_SYS_API int Ioctl(int fd, int request, void* arg, unsigned int flags);
TAVREL_SYS_API int AllocMediaRequest(int mediaFd, unsigned long owner);
TAVREL_SYS_API int ReinitMediaRequest(int requestFd);
TAVREL_SYS_API int QueueMediaRequest(int requestFd);
TAVREL_SYS_API int QueueVideoNodeBuf(int fd, void* buffer);
// -EAGAIN (no finished buffer on a non-blocking node) is returned silently.
TAVREL_SYS_API int DQueueVideoNodeBuf(int fd, void* buffer);
TAVREL_SYS_API int DQueueEvent(int fd, void* event);
TAVREL_SYS_API int AddIova(int fd, int request, void* arg);
TAVREL_SYS_API int DelIova(int fd, int request, void* arg);

}  // namespace NSCam::NSTavrel::System
