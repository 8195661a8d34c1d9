/* A bench client with a realistic maps file: maps FILES small files of a
 * scratch directory read-only, ANON anonymous regions with alternating
 * protections (so the kernel cannot merge them), and optionally one table's
 * relay.1 and ember, read-only or read-write. Then waits to be killed.
 *
 *   client_mapper SCRATCH FILES ANON [TABLE_DIR [rw]]
 */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

static void mapFile(const char* path, int writable) {
  int fd = open(path, writable ? O_RDWR : O_RDONLY);
  if (fd < 0) {
    return;
  }
  void* at = mmap(NULL, 4096, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  (void)at;
  close(fd);
}

int main(int argc, char** argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: client_mapper SCRATCH FILES ANON [TABLE_DIR [rw]]\n");
    return 2;
  }
  char path[4096];
  int files = atoi(argv[2]);
  int anon = atoi(argv[3]);
  for (int i = 0; i < files; ++i) {
    snprintf(path, sizeof path, "%s/lib%02d.so", argv[1], i);
    mapFile(path, 0);
  }
  for (int i = 0; i < anon; ++i) {
    void* at = mmap(NULL, 4096 * (size_t)(1 + i % 3), (i % 2) ? PROT_READ : PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    (void)at;
  }
  if (argc >= 5) {
    int writable = argc >= 6 && strcmp(argv[5], "rw") == 0;
    snprintf(path, sizeof path, "%s/relay.1", argv[4]);
    mapFile(path, writable);
    snprintf(path, sizeof path, "%s/ember", argv[4]);
    mapFile(path, writable);
  }
  /* Ready; wait for SIGTERM. */
  for (;;) {
    pause();
  }
}
