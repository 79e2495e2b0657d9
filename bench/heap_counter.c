/* Counts what a program has on its heap; loaded into it with LD_PRELOAD. Requires: glibc.
 *
 * The file that HEAP_COUNTER_FILE names, as long as `struct counts`, is kept up to date.
 */

#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

struct counts {
  atomic_llong bytes_alive; /* with what the allocator needs for itself */
  atomic_llong blocks_alive;
};

enum { BLOCK_OVERHEAD = sizeof(size_t) };

static struct counts before_file_is_open;
static struct counts* counts = &before_file_is_open;

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);

static void* counted(void* block) {
  if (block != NULL) {
    counts->bytes_alive += (long long)(malloc_usable_size(block) + BLOCK_OVERHEAD);
    counts->blocks_alive += 1;
  }
  return block;
}

static void discount(size_t usable) {
  counts->bytes_alive -= (long long)(usable + BLOCK_OVERHEAD);
  counts->blocks_alive -= 1;
}

void* malloc(size_t size) {
  return counted(__libc_malloc(size));
}

void* calloc(size_t count, size_t size) {
  return counted(__libc_calloc(count, size));
}

void* realloc(void* block, size_t size) {
  const size_t before = block != NULL ? malloc_usable_size(block) : 0;
  void* const moved = __libc_realloc(block, size);
  if (block != NULL && (moved != NULL || size == 0)) discount(before);
  return counted(moved);
}

void* memalign(size_t alignment, size_t size) {
  return counted(__libc_memalign(alignment, size));
}

void* aligned_alloc(size_t alignment, size_t size) {
  return counted(__libc_memalign(alignment, size));
}

int posix_memalign(void** block, size_t alignment, size_t size) {
  *block = counted(__libc_memalign(alignment, size));
  return *block != NULL ? 0 : ENOMEM;
}

void free(void* block) {
  if (block != NULL) discount(malloc_usable_size(block));
  __libc_free(block);
}

__attribute__((constructor)) static void open_file(void) {
  const char* const path = getenv("HEAP_COUNTER_FILE");
  const int file = path != NULL ? open(path, O_RDWR | O_CLOEXEC) : -1;
  if (file < 0) return;
  struct counts* const shared =
      mmap(NULL, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (shared == MAP_FAILED) return;
  *shared = before_file_is_open;
  counts = shared;
  /* The programs that this one runs are not counted, and start sooner without what is preloaded. */
  unsetenv("HEAP_COUNTER_FILE");
  unsetenv("LD_PRELOAD");
}
