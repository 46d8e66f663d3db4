// convlock.cpp - the lock around iconv_open and iconv_close (see
// convlock_int.h).
#include "convlock_int.h"

#include <pthread.h>

namespace {

// Exclusive: the C library serialises the same calls on its own lock
// anyway, and a plain mutex (unlike a read-write lock) may be released by
// the forked child's copy of the thread that took it.
pthread_mutex_t g_convLock = PTHREAD_MUTEX_INITIALIZER;

class Hold {
public:
    Hold() { pthread_mutex_lock(&g_convLock); }
    ~Hold() { pthread_mutex_unlock(&g_convLock); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
};

}  // namespace

iconv_t KsplIconvOpen(const char* to, const char* from) {
    Hold hold;
    return iconv_open(to, from);
}

void KsplIconvClose(iconv_t cd) {
    Hold hold;
    iconv_close(cd);
}

void KsplConvForkPrepare(void) { pthread_mutex_lock(&g_convLock); }

void KsplConvForkRelease(void) { pthread_mutex_unlock(&g_convLock); }
