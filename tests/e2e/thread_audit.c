/* Preloaded into symlift by the process-end tests: counts the threads the
 * process starts, joins and detaches, and writes the three counts to the
 * file named by SYMLIFT_THREAD_AUDIT when the process ends normally (after
 * main has returned). A process that ends with _exit writes nothing. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>

static atomic_long created, joined, detached;

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument) {
  static int (*real)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  if (!real) real = (int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*))dlsym(RTLD_NEXT, "pthread_create");
  const int result = real(thread, attributes, start, argument);
  if (result == 0) {
    ++created;
    int state = PTHREAD_CREATE_JOINABLE;
    if (attributes && pthread_attr_getdetachstate(attributes, &state) == 0 && state == PTHREAD_CREATE_DETACHED)
      ++detached;
  }
  return result;
}

int pthread_join(pthread_t thread, void** value) {
  static int (*real)(pthread_t, void**);
  if (!real) real = (int (*)(pthread_t, void**))dlsym(RTLD_NEXT, "pthread_join");
  const int result = real(thread, value);
  if (result == 0) ++joined;
  return result;
}

int pthread_detach(pthread_t thread) {
  static int (*real)(pthread_t);
  if (!real) real = (int (*)(pthread_t))dlsym(RTLD_NEXT, "pthread_detach");
  const int result = real(thread);
  if (result == 0) ++detached;
  return result;
}

__attribute__((destructor)) static void report(void) {
  const char* path = getenv("SYMLIFT_THREAD_AUDIT");
  if (!path) return;
  FILE* file = fopen(path, "w");
  if (!file) return;
  fprintf(file, "%ld %ld %ld\n", (long)created, (long)joined, (long)detached);
  fclose(file);
}
