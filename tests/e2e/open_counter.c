/* Preloaded into symlift by the open-count test: every open of a file inside
 * a dSYM's DWARF folder (open, openat, fopen and their 64-bit names) appends
 * the path, one per line, to the file named by SYMLIFT_OPEN_LOG. Each open
 * is logged as it happens, because symlift ends with _exit and no exit
 * handler of ours would run. Everything else is passed on untouched. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

typedef int (*open_function)(const char*, int, ...);
typedef int (*openat_function)(int, const char*, int, ...);
typedef FILE* (*fopen_function)(const char*, const char*);

static void note(const char* path) {
  static const char kFolder[] = "Contents/Resources/DWARF/";
  const char* found = path ? strstr(path, kFolder) : NULL;
  if (!found || found[sizeof kFolder - 1] == '\0') return;
  const char* log = getenv("SYMLIFT_OPEN_LOG");
  if (!log) return;
  const int saved = errno;
  open_function real = (open_function)dlsym(RTLD_NEXT, "open");
  const int fd = real ? real(log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600) : -1;
  if (fd >= 0) {
    /* One write per line: O_APPEND keeps lines from several threads whole. */
    char line[4096];
    const int length = snprintf(line, sizeof line, "%s\n", path);
    if (length > 0 && (size_t)length < sizeof line && write(fd, line, (size_t)length) < 0) {
    }
    close(fd);
  }
  errno = saved;
}

static mode_t modeOf(int flags, va_list arguments) {
  return (flags & (O_CREAT | O_TMPFILE)) ? (mode_t)va_arg(arguments, int) : 0;
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  note(path);
  open_function real = (open_function)dlsym(RTLD_NEXT, "open");
  if (!real) return errno = ENOSYS, -1;
  return real(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  note(path);
  openat_function real = (openat_function)dlsym(RTLD_NEXT, "openat");
  if (!real) return errno = ENOSYS, -1;
  return real(directory, path, flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
  note(path);
  fopen_function real = (fopen_function)dlsym(RTLD_NEXT, "fopen");
  if (!real) return errno = ENOSYS, (FILE*)NULL;
  return real(path, mode);
}

/* On 64-bit systems the large-file names are the same calls. */
int open64(const char* path, int flags, ...) __attribute__((alias("open")));
int openat64(int directory, const char* path, int flags, ...) __attribute__((alias("openat")));
FILE* fopen64(const char* path, const char* mode) __attribute__((alias("fopen")));
