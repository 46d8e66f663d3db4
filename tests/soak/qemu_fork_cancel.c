/* qemu_fork_cancel.c - plain POSIX threads, no kspl: the pattern of the
 * soak (one thread forking at intervals while others allocate, lock, wait
 * on condition variables and cancel threads blocked in those waits), to
 * tell whether a hang under qemu-user belongs to the library or to the
 * emulator.
 *
 *   gcc -m32 -O2 -pthread tests/soak/qemu_fork_cancel.c -o qemu_fork_cancel
 *   timeout 120 qemu-i386 ./qemu_fork_cancel [seconds]
 *
 * Prints one line per second of progress and "done" at the end. A run that
 * stops printing and never ends (timeout's status 124) is a hang: nothing
 * here can block for longer than a few milliseconds on its own. */
#define _GNU_SOURCE
#include <iconv.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { kWorkers = 4 };

static atomic_int g_stop;
static atomic_long g_ops;
static atomic_long g_forks;
static atomic_long g_cancels;
static atomic_long g_badChildren;

struct Waiter {
    pthread_mutex_t mu;
    pthread_cond_t cv;
    atomic_int entered;
};

static void Unlock(void* m) { pthread_mutex_unlock((pthread_mutex_t*)m); }

/* Blocks in a condition wait until cancelled. */
static void* BlockedWaiter(void* p) {
    struct Waiter* w = (struct Waiter*)p;
    pthread_mutex_lock(&w->mu);
    pthread_cleanup_push(Unlock, &w->mu);
    atomic_store(&w->entered, 1);
    for (;;) pthread_cond_wait(&w->cv, &w->mu);
    pthread_cleanup_pop(1);
    return NULL;
}

static void* Short(void* p) {
    free(malloc(64));
    return p;
}

static unsigned Next(unsigned* s) {
    *s = *s * 1103515245u + 12345u;
    return *s >> 8;
}

static void* Worker(void* arg) {
    unsigned seed = (unsigned)(size_t)arg;
    pthread_mutex_t mu = PTHREAD_MUTEX_INITIALIZER;
    while (!atomic_load(&g_stop)) {
        unsigned op = Next(&seed) % 10;
        if (op < 5) {
            void* blocks[16];
            for (int i = 0; i < 16; ++i) blocks[i] = malloc(16 + Next(&seed) % 4096);
            pthread_mutex_lock(&mu);
            for (int i = 0; i < 16; ++i) free(blocks[i]);
            pthread_mutex_unlock(&mu);
        } else if (op < 8) {
            pthread_t t;
            if (pthread_create(&t, NULL, Short, NULL) == 0) pthread_join(t, NULL);
        } else {
            /* A thread blocked in a condition wait, cancelled from here. */
            struct Waiter w;
            pthread_mutex_init(&w.mu, NULL);
            pthread_cond_init(&w.cv, NULL);
            atomic_store(&w.entered, 0);
            pthread_t t;
            if (pthread_create(&t, NULL, BlockedWaiter, &w) == 0) {
                while (!atomic_load(&w.entered)) sched_yield();
                usleep(Next(&seed) % 2000);
                pthread_cancel(t);
                pthread_join(t, NULL);
                atomic_fetch_add(&g_cancels, 1);
            }
            pthread_cond_destroy(&w.cv);
            pthread_mutex_destroy(&w.mu);
        }
        atomic_fetch_add(&g_ops, 1);
    }
    return NULL;
}

int main(int argc, char** argv) {
    int seconds = argc > 1 ? atoi(argv[1]) : 30;
    pthread_t workers[kWorkers];
    for (int i = 0; i < kWorkers; ++i) {
        pthread_create(&workers[i], NULL, Worker, (void*)(size_t)(i * 7919 + 1));
    }
    struct timespec start, now;
    clock_gettime(CLOCK_MONOTONIC, &start);
    int reported = 0;
    for (;;) {
        clock_gettime(CLOCK_MONOTONIC, &now);
        int elapsed = (int)(now.tv_sec - start.tv_sec);
        if (elapsed >= seconds) break;
        if (elapsed > reported) {
            reported = elapsed;
            printf("%3d s: %ld ops, %ld forks, %ld cancels\n", elapsed, atomic_load(&g_ops),
                   atomic_load(&g_forks), atomic_load(&g_cancels));
            fflush(stdout);
        }
        /* The child allocates, converts (iconv_open loads a gconv module:
         * new code in the child) and leaves, as the soak's child does
         * before it would start threads. Its alarm turns a hung child into
         * a child killed by SIGALRM, reported here. */
        pid_t pid = fork();
        if (pid == 0) {
            alarm(30);
            free(malloc(100));
            iconv_t cd = iconv_open("UTF-16LE", "ISO-8859-15");
            if (cd != (iconv_t)-1) {
                char in[] = "caf\xe9", out[16];
                char *ip = in, *op = out;
                size_t il = 4, ol = sizeof out;
                iconv(cd, &ip, &il, &op, &ol);
                iconv_close(cd);
            }
            _exit(0);
        }
        if (pid > 0) {
            int status = 0;
            waitpid(pid, &status, 0);
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
                printf("child %d ended with status 0x%x\n", (int)pid, status);
                fflush(stdout);
                atomic_fetch_add(&g_badChildren, 1);
            }
            atomic_fetch_add(&g_forks, 1);
        }
        usleep(20000);
    }
    atomic_store(&g_stop, 1);
    for (int i = 0; i < kWorkers; ++i) pthread_join(workers[i], NULL);
    printf("done: %ld ops, %ld forks (%ld children failed), %ld cancels\n", atomic_load(&g_ops),
           atomic_load(&g_forks), atomic_load(&g_badChildren), atomic_load(&g_cancels));
    return atomic_load(&g_badChildren) == 0 ? 0 : 1;
}
