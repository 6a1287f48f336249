// The PDB loader reads files, so the PDB fuzzers write each input to a file of their own first
// (in memory-backed /dev/shm where there is one) and open that.
#pragma once
#include <stdio.h>
#include <unistd.h>

#include <string>

// The input written to this process's file for tag; null when it cannot be written.
inline const char *WriteFuzzInput(const char *tag, const uint8_t *data, size_t size) {
  static std::string path;
  if (path.empty()) {
    const char *dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    path = std::string(dir) + "/ktrn-fuzz-" + tag + "-" + std::to_string(getpid()) + ".pdb";
  }
  FILE *f = fopen(path.c_str(), "wb");
  if (!f) return nullptr;
  fwrite(data, 1, size, f);
  fclose(f);
  return path.c_str();
}
