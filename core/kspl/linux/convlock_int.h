// convlock_int.h - iconv descriptors opened and closed so that fork() never
// catches the C library's conversion registry in use.
//
// iconv_open and iconv_close take a process-wide lock of the C library,
// which a forked child inherits as it was: a child forked while another
// thread was opening a descriptor would hang in its first conversion. The
// library's own opens and closes run under a lock that the forking thread
// holds across fork().
//
// Lock order: the conversion lock is outermost among the fork-held locks
// (before InterfaceMutex and the instances' protection locks); it is held
// only for the duration of one iconv_open or iconv_close call.
#pragma once
#include <iconv.h>

iconv_t KsplIconvOpen(const char* to, const char* from);
void KsplIconvClose(iconv_t cd);

// fork() handlers: prepare waits for every open and close in progress and
// holds off new ones; release (parent and child) lets them go on.
void KsplConvForkPrepare(void);
void KsplConvForkRelease(void);
