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

namespace NSCam::NSTavrel::System {

// Files and directories.
int64_t Read(int fd, void* buf, unsigned long count);
int64_t Write(int fd, const void* buf, unsigned long count);
// Opens character and block devices only; anything else gives -ENODEV.
int Open(const char* path, int flags, unsigned long owner);
int Close(int fd, unsigned long owner);
int Stat(const char* path, struct stat* st);
// The buffer is not terminated.
int ReadLink(const char* path, char* buf, unsigned long size);
DIR* OpenDir(const char* path);
// Null at the end of the directory too, which is logged like an error.
struct dirent* ReadDir(DIR* dir);
int CloseDir(DIR* dir);

// Event primitives.
int EventFD(unsigned int initval, int flags, unsigned long owner);
int EPollCreate(int size, unsigned long owner);
int EPollCtlAdd(int epfd, int fd, struct epoll_event* event);
int EPollCtlMod(int epfd, int fd, struct epoll_event* event);
int EPollCtlDel(int epfd, int fd, struct epoll_event* event);
// An interrupted wait returns -EINTR silently.
int EPollWait(int epfd, struct epoll_event* events, int maxevents, int timeout);
int TimerFDCreate(int clockid, int flags, unsigned long owner);
int TimerFDSetTime(int fd, int flags, const struct itimerspec* newValue,
                   struct itimerspec* oldValue);
int TimerFDGetTime(int fd, struct itimerspec* current);

// Imaging driver requests. A failed request (other than the exceptions noted) raises a
// crash report and ends the service; should the service survive, -errno is returned.

// Bit 0 of Ioctl's flags: treat a negative result as a failure (log it, return -errno).
inline constexpr unsigned int kIoctlCheckResult = 0x1;
// Never fatal. Without kIoctlCheckResult the raw result is returned and errno is left.
int Ioctl(int fd, int request, void* arg, unsigned int flags);
int AllocMediaRequest(int mediaFd, unsigned long owner);
int ReinitMediaRequest(int requestFd);
int QueueMediaRequest(int requestFd);
int QueueVideoNodeBuf(int fd, void* buffer);
// -EAGAIN (no finished buffer on a non-blocking node) is returned silently.
int DQueueVideoNodeBuf(int fd, void* buffer);
int DQueueEvent(int fd, void* event);
int AddIova(int fd, int request, void* arg);
int DelIova(int fd, int request, void* arg);

}  // namespace NSCam::NSTavrel::System
