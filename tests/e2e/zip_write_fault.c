/* Preloaded into symlift by the write-error tests: creating a file whose
 * name ends in ".zip" fails as on a full disk, while every other file is
 * written as usual. That is a failure of the gzip file alone, which no
 * file-size limit can make: the cSYM before it is always the larger file. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <string.h>

typedef int (*open_function)(const char*, int, ...);

static int refused(const char* path, int flags) {
  const size_t length = path ? strlen(path) : 0;
  return (flags & O_CREAT) && length >= 4 && strcmp(path + length - 4, ".zip") == 0;
}

int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if (flags & (O_CREAT | O_TMPFILE)) {
    va_list arguments;
    va_start(arguments, flags);
    mode = (mode_t)va_arg(arguments, int);
    va_end(arguments);
  }
  if (refused(path, flags)) {
    errno = ENOSPC;
    return -1;
  }
  open_function real = (open_function)dlsym(RTLD_NEXT, "open");
  if (!real) {
    errno = ENOSYS;
    return -1;
  }
  return real(path, flags, mode);
}

/* Code built with large-file names calls open64; on 64-bit systems it is
 * the same call. */
int open64(const char* path, int flags, ...) __attribute__((alias("open")));
