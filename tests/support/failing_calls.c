/*
 * Preloaded into a program: makes its disk and its memory fail, as a file says that the
 * environment variable FAILING_CALLS names. The file is mapped, so that it can change
 * while the program runs. See failing_calls.h.
 */
#define _GNU_SOURCE
#include "failing_calls.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

static struct failing_calls none;
static struct failing_calls *control = &none;

__attribute__((constructor)) static void find_control(void)
{
    const char *const path = getenv("FAILING_CALLS");
    const int file = path != NULL ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (file < 0)
        return;
    void *const mapped = mmap(NULL, sizeof *control, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (mapped != MAP_FAILED)
        control = mapped;
}

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

static int is_turn(uint64_t every, uint64_t *count)
{
    ++*count;
    return every != 0 && *count % every == 0;
}

static void copy_file(const char *from, const char *to)
{
    char bytes[65536];
    const int in = open(from, O_RDONLY | O_CLOEXEC);
    const int out = open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    for (ssize_t size; in >= 0 && out >= 0 && (size = read(in, bytes, sizeof bytes)) > 0;)
        if (REAL(write)(out, bytes, (size_t)size) != size)
            break;
    close(in);
    close(out);
}

/* The bytes that the disk has for sure: a copy of the file, in the folder for copies. */
static void remember(int file)
{
    char name[64];
    char path[PATH_MAX] = "";
    char copy[2 * PATH_MAX];
    char draft[2 * PATH_MAX];
    struct stat status;
    if (control->copies[0] == '\0' || fstat(file, &status) != 0 || !S_ISREG(status.st_mode))
        return;
    snprintf(name, sizeof name, "/proc/self/fd/%d", file);
    if (readlink(name, path, sizeof path - 1) < 0)
        return;
    snprintf(copy, sizeof copy, "%s/%s", control->copies, strrchr(path, '/') + 1);
    snprintf(draft, sizeof draft, "%s/draft", control->copies);
    copy_file(path, draft);
    rename(draft, copy); /* a kill leaves the old copy or the new one */
}

static int sync_with(int (*sync)(int), int file)
{
    if (is_turn(control->fail_sync_every, &control->syncs)) {
        ++control->failures;
        errno = EIO;
        return -1;
    }
    if (control->sync_delay_us != 0)
        usleep((useconds_t)control->sync_delay_us);
    const int result = sync(file);
    if (result == 0)
        remember(file);
    return result;
}

int fsync(int file) { return sync_with(REAL(fsync), file); }
int fdatasync(int file) { return sync_with(REAL(fdatasync), file); }

/* A full disk takes no bytes behind a file's end; room appears when a file is removed. */
static int is_refused(int file, off64_t end)
{
    struct stat status;
    if (control->is_full == 0 || fstat(file, &status) != 0 || !S_ISREG(status.st_mode) || end <= status.st_size)
        return 0;
    const uint64_t growth = (uint64_t)(end - status.st_size);
    if (growth <= control->free_bytes) {
        control->free_bytes -= growth;
        return 0;
    }
    ++control->failures;
    errno = ENOSPC;
    return 1;
}

ssize_t pwrite64(int file, const void *bytes, size_t size, off64_t offset)
{
    return is_refused(file, offset + (off64_t)size) ? -1 : REAL(pwrite64)(file, bytes, size, offset);
}

ssize_t pwrite(int file, const void *bytes, size_t size, off_t offset) { return pwrite64(file, bytes, size, offset); }

ssize_t write(int file, const void *bytes, size_t size)
{
    const off_t at = control->is_full != 0 ? lseek(file, 0, SEEK_CUR) : -1;
    return at >= 0 && is_refused(file, at + (off_t)size) ? -1 : REAL(write)(file, bytes, size);
}

int posix_fallocate(int file, off_t offset, off_t size)
{
    return is_refused(file, offset + size) ? ENOSPC : REAL(posix_fallocate)(file, offset, size);
}
int posix_fallocate64(int file, off64_t offset, off64_t size) { return posix_fallocate(file, offset, size); }

int unlink(const char *path)
{
    struct stat status;
    if (control->is_full != 0 && stat(path, &status) == 0 && S_ISREG(status.st_mode))
        control->free_bytes += (uint64_t)status.st_size;
    return REAL(unlink)(path);
}

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *old, size_t size);

static int fails_to_allocate(void)
{
    if (!is_turn(control->fail_allocation_every, &control->allocations))
        return 0;
    ++control->failures;
    errno = ENOMEM;
    return 1;
}

void *malloc(size_t size) { return fails_to_allocate() ? NULL : __libc_malloc(size); }
void *calloc(size_t count, size_t size) { return fails_to_allocate() ? NULL : __libc_calloc(count, size); }
void *realloc(void *old, size_t size) { return fails_to_allocate() ? NULL : __libc_realloc(old, size); }
