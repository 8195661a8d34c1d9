/* The floor for one heron-stat sample: walk the collection root and open,
 * fstat, map read-only and unmap every file heron-stat reads of each table
 * (owner, ember, quarry, relay.1, relay.2, region.N). No reader of those
 * files can do less. Prints the files and bytes it mapped. */
#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

static long files;
static long long bytes;

static int tableFile(const char* name) {
  static const char* const fixed[] = {"owner", "ember", "quarry", "relay.1", "relay.2"};
  for (size_t i = 0; i < sizeof fixed / sizeof fixed[0]; ++i) {
    if (strcmp(name, fixed[i]) == 0) {
      return 1;
    }
  }
  return strncmp(name, "region.", 7) == 0;
}

static void mapOnce(const char* path) {
  int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    return;
  }
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) {
    void* base = mmap(NULL, (size_t)st.st_size, PROT_READ, MAP_SHARED, fd, 0);
    if (base != MAP_FAILED) {
      /* Touch the header, as every reader does. */
      volatile unsigned char first = *(const unsigned char*)base;
      (void)first;
      munmap(base, (size_t)st.st_size);
      ++files;
      bytes += st.st_size;
    }
  }
  close(fd);
}

static void walk(const char* dir) {
  DIR* d = opendir(dir);
  if (d == NULL) {
    return;
  }
  struct dirent* entry;
  char path[4096];
  while ((entry = readdir(d)) != NULL) {
    if (entry->d_name[0] == '.') {
      continue;
    }
    snprintf(path, sizeof path, "%s/%s", dir, entry->d_name);
    if (entry->d_type == DT_DIR) {
      walk(path);
    } else if (entry->d_type == DT_REG && tableFile(entry->d_name)) {
      mapOnce(path);
    }
  }
  closedir(d);
}

int main(int argc, char** argv) {
  const char* root = argc > 1 ? argv[1] : getenv("HERON_ROOT");
  if (root == NULL) {
    fprintf(stderr, "usage: stat_floor ROOT\n");
    return 2;
  }
  walk(root);
  printf("%ld files, %lld bytes\n", files, bytes);
  return 0;
}
