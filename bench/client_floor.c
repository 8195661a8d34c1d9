/* The floor for client discovery: read every /proc/<pid>/maps with read() in
 * 64 KiB chunks and count the lines that name "relay.1" or "ember". This is
 * what the kernel costs to produce the text; no reader can do less. */
#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

int main(void) {
  static char buffer[65536];
  char path[300];
  long processes = 0;
  long hits = 0;
  DIR* proc = opendir("/proc");
  if (proc == NULL) {
    perror("/proc");
    return 1;
  }
  struct dirent* entry;
  while ((entry = readdir(proc)) != NULL) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') {
      continue;
    }
    snprintf(path, sizeof path, "/proc/%s/maps", entry->d_name);
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
      continue;
    }
    ++processes;
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0) {
      const char* names[2] = {"relay.1", "ember"};
      for (int k = 0; k < 2; ++k) {
        const char* at = buffer;
        const char* end = buffer + n;
        size_t length = strlen(names[k]);
        while (at < end && (at = memmem(at, (size_t)(end - at), names[k], length)) != NULL) {
          ++hits;
          at += length;
        }
      }
    }
    close(fd);
  }
  closedir(proc);
  printf("%ld processes, %ld hits\n", processes, hits);
  return 0;
}
